#include "VintrelCore/FileSystems/APFS/Records.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"
#include "VintrelCore/Foundation/Decmpfs.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Sorting.h"

#include <algorithm>
#include <tuple>

using namespace APFSFormat;

namespace {

/// The elements of a sorted vector whose `member` is `value`.
template <class T>
std::span<const T> equalRange(
    const std::vector<T>& all, std::uint64_t value, std::uint64_t T::*member)
{
    const auto first = std::ranges::lower_bound(all, value, {}, member);
    const auto last = std::ranges::upper_bound(first, all.end(), value, {}, member);
    return { first, last };
}

/// Text ends at its first zero byte.
ByteView untilZero(ByteView bytes)
{
    const auto end = std::ranges::find(bytes.span(), std::uint8_t { 0 });
    return bytes.span().first(static_cast<std::size_t>(end - bytes.span().begin()));
}

std::uint64_t idOf(ByteView key)
{
    return key.load<RecordKey>(0).value_or(RecordKey {}).idAndKind & objectIDMask;
}

std::uint64_t kindOf(ByteView key)
{
    return key.load<RecordKey>(0).value_or(RecordKey {}).idAndKind >> recordKindShift;
}

/// The object that a record is about: for a directory record what it names, not the folder.
std::uint64_t subjectOf(ByteView key, ByteView value)
{
    return kindOf(key) == RecordKind::directoryRecord
        ? value.u64le(offsetof(DirectoryValue, fileID)) & objectIDMask
        : idOf(key);
}

/// The name in the key of a directory record.
ByteView nameIn(ByteView key, bool isHashed)
{
    if (!isHashed)
        return key.sub(sizeof(DirectoryKey), key.u16le(offsetof(DirectoryKey, nameLength)));
    return key.sub(sizeof(HashedDirectoryKey),
        key.u32le(offsetof(HashedDirectoryKey, nameLengthAndHash)) & nameLengthMask);
}

} // namespace

bool APFSFileRecords::Inode::isFolder() const { return (mode & modeMask) == folderMode; }

bool APFSFileRecords::Inode::isSymlink() const { return (mode & modeMask) == symlinkMode; }

APFSFileRecords::Text APFSFileRecords::keep(ByteView text) { return keepBytes(untilZero(text)); }

APFSFileRecords::Text APFSFileRecords::keepBytes(ByteView bytes)
{
    const Text kept { texts_.size(), static_cast<std::uint16_t>(bytes.size()) };
    texts_.append(bytes.span().begin(), bytes.span().end());
    return kept;
}

void APFSFileRecords::reserve(std::size_t leaves, std::uint64_t blockSize)
{
    // A file of one piece takes its inode, a name and an extent: 20 of each in a block of 4 KiB.
    const auto files = static_cast<std::size_t>(saturatingMultiply(leaves, blockSize / 200));
    inodes_.reserve(files);
    links_.reserve(files);
    extents_.reserve(files);
}

void APFSFileRecords::addLeaf(ByteView node, std::uint64_t blockSize, bool isHashed,
    LeafVersion leaf, const IsWanted& isWanted)
{
    // Records do not share bytes. Where they seem to, a small node could ask for any amount of
    // memory.
    std::uint64_t bytesLeft = blockSize;
    APFSNodes::forEachRecord(node, blockSize, {}, [&](ByteView key, std::optional<ByteView> found) {
        const auto value = found.value_or(ByteView());
        if (key.size() + value.size() > bytesLeft)
            bytesLeft = 0;
        if (key.size() < sizeof(RecordKey) || bytesLeft == 0)
            return;
        bytesLeft -= key.size() + value.size();
        if (!isWanted || isWanted(subjectOf(key, value), key))
            addRecord(key, value, isHashed, leaf);
    });
}

void APFSFileRecords::addRecord(ByteView key, ByteView value, bool isHashed, LeafVersion leaf)
{
    const auto id = idOf(key);
    switch (kindOf(key)) {
    case RecordKind::inode:
        addInode(id, value, leaf);
        break;
    case RecordKind::attribute:
        addAttribute(id, key, value, leaf);
        break;
    case RecordKind::siblingLink:
        addSiblingLink(id, value, leaf);
        break;
    case RecordKind::fileExtent:
        addExtent(id, key, value, leaf);
        break;
    case RecordKind::directoryRecord:
        addDirectoryEntry(id, key, value, isHashed, leaf);
        break;
    default:
        break;
    }
}

void APFSFileRecords::addSiblingLink(std::uint64_t id, ByteView value, LeafVersion leaf)
{
    const auto link = value.load<SiblingValue>(0);
    if (!link || value.size() == sizeof(SiblingValue))
        return;
    const auto name = keep(value.sub(sizeof(SiblingValue), link->nameLength));
    links_.push_back({ id, leaf, link->parentID, name, false, true });
}

void APFSFileRecords::addExtent(std::uint64_t id, ByteView key, ByteView value, LeafVersion leaf)
{
    const auto extent = value.load<FileExtentValue>(0);
    if (!extent)
        return;
    extents_.push_back({ id, leaf, key.u64le(offsetof(FileExtentKey, logical)),
        extent->lengthAndFlags & extentLengthMask, extent->block });
}

void APFSFileRecords::addDirectoryEntry(
    std::uint64_t parent, ByteView key, ByteView value, bool isHashed, LeafVersion leaf)
{
    const auto entry = value.load<DirectoryValue>(0);
    if (!entry)
        return;
    links_.push_back({ subjectOf(key, value), leaf, parent, keep(nameIn(key, isHashed)),
        (entry->flags & entryKindMask) == folderKind, false });
}

void APFSFileRecords::addInode(std::uint64_t id, ByteView value, LeafVersion leaf)
{
    const auto stored = value.load<InodeValue>(0);
    if (!stored)
        return;
    Inode inode { .id = id,
        .leaf = leaf,
        .parent = stored->parentID,
        .privateID = stored->privateID,
        .size = 0,
        .created = stored->created,
        .modified = stored->modified,
        .changed = stored->changed,
        .name = {},
        .mode = stored->mode,
        .isSparse = (stored->internalFlags & sparseFlag) != 0,
        .isCompressed = (stored->bsdFlags & compressedFlag) != 0,
        .isCloned = (stored->internalFlags & clonedFlags) != 0,
        .isDataless = (stored->bsdFlags & datalessFlag) != 0 };
    addExtendedFields(inode, value);
    if (inode.isCompressed && (stored->internalFlags & hasUncompressedSizeFlag) != 0)
        inode.size = stored->uncompressedSize;
    inodes_.push_back(inode);
}

void APFSFileRecords::addExtendedFields(Inode& inode, ByteView value)
{
    const auto fields = value.load<ExtendedFields>(sizeof(InodeValue)).value_or(ExtendedFields {});
    constexpr std::int64_t table = sizeof(InodeValue) + sizeof(ExtendedFields);
    constexpr std::int64_t entrySize = sizeof(ExtendedField);
    std::int64_t data = table + fields.count * entrySize;
    for (std::int64_t i = 0; i < fields.count && data < static_cast<std::int64_t>(value.size());
         ++i) {
        const auto field
            = *value.load<ExtendedField>(table + i * entrySize); // lies before its data
        if (field.type == FieldType::name)
            inode.name = keep(value.sub(data, field.size));
        else if (field.type == FieldType::dataStream)
            inode.size = value.u64le(data + std::int64_t { offsetof(DataStream, size) });
        else if (field.type == FieldType::sparseBytes)
            inode.isSparse = inode.isSparse || value.u64le(data) != 0;
        data += (std::int64_t { field.size } + 7) / 8 * 8;
    }
}

void APFSFileRecords::addAttribute(std::uint64_t id, ByteView key, ByteView value, LeafVersion leaf)
{
    const auto head = value.load<AttributeValue>(0);
    if (!head)
        return;
    const auto name = key.sub(sizeof(AttributeKey), key.u16le(offsetof(AttributeKey, nameLength)));
    const auto content = (head->flags & embeddedFlag) != 0
        ? value.sub(sizeof(AttributeValue), head->length)
        : ByteView();
    const auto is = [&](std::string_view text) {
        return name.size() == text.size() + 1 && name.matches(text, 0);
    };
    Attribute attribute { id, leaf, {}, 0, {} };
    const auto stream = (head->flags & streamFlag) != 0
        ? value.load<AttributeStream>(sizeof(AttributeValue)).value_or(AttributeStream {})
        : AttributeStream {};
    attribute.streamID = stream.owner;
    if (is("com.apple.fs.symlink")) {
        attribute.kind = Attribute::Kind::symlink;
        attribute.content = keep(content);
    } else if (is("com.apple.decmpfs")) {
        attribute.kind = Attribute::Kind::compression;
        attribute.size = Decmpfs::sizeIn(content).value_or(0);
        attribute.content = keepBytes(content);
    } else {
        attribute.kind
            = is("com.apple.ResourceFork") ? Attribute::Kind::resourceFork : Attribute::Kind::other;
        attribute.size = attribute.streamID != 0 ? std::uint64_t { stream.size } : content.size();
        attribute.content = keepBytes(content);
        if (attribute.kind == Attribute::Kind::other)
            attribute.name = keep(name);
    }
    attributes_.push_back(attribute);
}

void APFSFileRecords::sort()
{
    // What differs in nothing else comes in the order of the texts, which is that of the leaves.
    sortIfNeeded(inodes_, [](const Inode& one, const Inode& other) {
        return std::tuple(one.id, other.leaf.xid, one.name.at)
            < std::tuple(other.id, one.leaf.xid, other.name.at);
    });
    const auto sameInode = [](const Inode& one, const Inode& other) { return one.id == other.id; };
    inodes_.erase(std::unique(inodes_.begin(), inodes_.end(), sameInode), inodes_.end());
    sortIfNeeded(links_, [](const Link& one, const Link& other) {
        return std::tuple(one.id, other.leaf.xid, one.isSibling, one.name.at)
            < std::tuple(other.id, one.leaf.xid, other.isSibling, other.name.at);
    });
    sortIfNeeded(extents_, [](const Extent& one, const Extent& other) {
        return std::tuple(one.owner, one.logical, other.leaf.xid, one.block)
            < std::tuple(other.owner, other.logical, one.leaf.xid, other.block);
    });
    sortIfNeeded(attributes_, [this](const Attribute& one, const Attribute& other) {
        return std::tuple(one.id, one.kind, text(one.name), other.leaf.xid, one.content.at)
            < std::tuple(other.id, other.kind, text(other.name), one.leaf.xid, other.content.at);
    });
    const auto sameAttribute = [this](const Attribute& one, const Attribute& other) {
        return one.id == other.id && one.kind == other.kind && text(one.name) == text(other.name);
    };
    attributes_.erase(
        std::unique(attributes_.begin(), attributes_.end(), sameAttribute), attributes_.end());
}

const APFSFileRecords::Inode* APFSFileRecords::inode(std::uint64_t id) const
{
    const auto found = equalRange(inodes_, id, &Inode::id);
    return found.empty() ? nullptr : &found.front();
}

const APFSFileRecords::Attribute* APFSFileRecords::attribute(
    std::uint64_t id, Attribute::Kind kind) const
{
    for (const auto& attribute : equalRange(attributes_, id, &Attribute::id))
        if (attribute.kind == kind)
            return &attribute;
    return nullptr;
}

std::span<const APFSFileRecords::Attribute> APFSFileRecords::attributesOf(std::uint64_t id) const
{
    return equalRange(attributes_, id, &Attribute::id);
}

std::span<const APFSFileRecords::Link> APFSFileRecords::linksOf(std::uint64_t id) const
{
    return equalRange(links_, id, &Link::id);
}

std::span<const APFSFileRecords::Extent> APFSFileRecords::extentsOf(std::uint64_t owner) const
{
    return equalRange(extents_, owner, &Extent::owner);
}
