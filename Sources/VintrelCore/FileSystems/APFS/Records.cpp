#include "VintrelCore/FileSystems/APFS/Records.h"

#include "VintrelCore/FileSystems/APFS/Nodes.h"

#include <algorithm>
#include <tuple>

using namespace APFSFormat;

namespace {

constexpr std::int64_t keyHead = 8; // the number and the kind

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

} // namespace

bool APFSFileRecords::Inode::isFolder() const { return (mode & modeMask) == folderMode; }

bool APFSFileRecords::Inode::isSymlink() const { return (mode & modeMask) == symlinkMode; }

APFSFileRecords::Text APFSFileRecords::keep(ByteView bytes)
{
    const auto text = untilZero(bytes).span();
    const Text kept { texts_.size(), static_cast<std::uint16_t>(text.size()) };
    texts_.append(text.begin(), text.end());
    return kept;
}

void APFSFileRecords::addLeaf(ByteView node, std::uint64_t blockSize, bool isHashed, Origin origin,
    const std::function<bool(std::uint64_t id)>& isWanted)
{
    // Records do not share bytes. Where they seem to, a small node could ask for any amount of
    // memory.
    std::uint64_t bytesLeft = blockSize;
    APFSNodes::forEachRecord(node, blockSize, {}, [&](ByteView key, std::optional<ByteView> found) {
        const auto value = found.value_or(ByteView());
        if (key.size() + value.size() > bytesLeft)
            bytesLeft = 0;
        if (key.size() < keyHead || bytesLeft == 0)
            return;
        bytesLeft -= key.size() + value.size();
        const std::uint64_t id = key.u64le(0) & objectIDMask;
        const std::uint64_t kind = key.u64le(0) >> 60;
        const std::uint64_t subject
            = kind == RecordKind::directoryRecord ? value.u64le(0) & objectIDMask : id;
        if (isWanted && !isWanted(subject))
            return;
        switch (kind) {
        case RecordKind::inode:
            addInode(id, value, origin);
            break;
        case RecordKind::attribute:
            addAttribute(id, key, value, origin);
            break;
        case RecordKind::siblingLink: {
            const std::int64_t length = value.u16le(8);
            if (value.size() > 10)
                links_.push_back(
                    { id, origin, value.u64le(0), keep(value.sub(10, length)), false, true });
            break;
        }
        case RecordKind::fileExtent:
            if (const auto extent = value.load<FileExtentValue>(0))
                extents_.push_back({ id, origin, key.u64le(keyHead),
                    extent->lengthAndFlags & extentLengthMask, extent->block });
            break;
        case RecordKind::directoryRecord:
            if (const auto entry = value.load<DirectoryValue>(0)) {
                constexpr std::uint32_t lengthMask = 0x3FF; // the hash is above it
                const auto name = isHashed ? key.sub(keyHead + 4, key.u32le(keyHead) & lengthMask)
                                           : key.sub(keyHead + 2, key.u16le(keyHead));
                links_.push_back(
                    { subject, origin, id, keep(name), (entry->flags & 15) == folderKind, false });
            }
            break;
        default:
            break;
        }
    });
}

void APFSFileRecords::addInode(std::uint64_t id, ByteView value, Origin origin)
{
    const auto stored = value.load<InodeValue>(0);
    if (!stored)
        return;
    Inode inode { .id = id,
        .origin = origin,
        .parent = stored->parentID,
        .privateID = stored->privateID,
        .size = 0,
        .created = stored->created,
        .modified = stored->modified,
        .name = {},
        .mode = stored->mode,
        .isSparse = (stored->internalFlags & sparseFlag) != 0,
        .isCompressed = (stored->bsdFlags & compressedFlag) != 0 };
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
            inode.size = value.u64le(data);
        else if (field.type == FieldType::sparseBytes)
            inode.isSparse = inode.isSparse || value.u64le(data) != 0;
        data += (std::int64_t { field.size } + 7) / 8 * 8;
    }
    if (inode.isCompressed && (stored->internalFlags & hasUncompressedSizeFlag) != 0)
        inode.size = stored->uncompressedSize;
    inodes_.push_back(inode);
}

void APFSFileRecords::addAttribute(std::uint64_t id, ByteView key, ByteView value, Origin origin)
{
    const auto head = value.load<AttributeValue>(0);
    if (!head)
        return;
    const auto name = key.sub(keyHead + 2, key.u16le(keyHead));
    const auto content = (head->flags & embeddedFlag) != 0
        ? value.sub(sizeof(AttributeValue), head->length)
        : ByteView();
    const auto is = [&](std::string_view text) {
        return name.size() == text.size() + 1 && name.matches(text, 0);
    };
    Attribute attribute { id, origin, {}, 0, {} };
    if (is("com.apple.fs.symlink")) {
        attribute.kind = Attribute::Kind::symlink;
        attribute.target = keep(content);
    } else if (is("com.apple.decmpfs")) {
        attribute.kind = Attribute::Kind::compression;
        const auto header = content.load<CompressionHeader>(0);
        if (header && header->magic == compressionMagic)
            attribute.size = header->uncompressedSize;
    } else if (is("com.apple.ResourceFork")) {
        attribute.kind = Attribute::Kind::resourceFork;
    } else {
        return;
    }
    attributes_.push_back(attribute);
}

void APFSFileRecords::sort()
{
    // What differs in nothing else comes in the order of the texts, which is that of the leaves.
    std::ranges::sort(inodes_, [](const Inode& one, const Inode& other) {
        return std::tuple(one.id, other.origin.xid, one.name.at)
            < std::tuple(other.id, one.origin.xid, other.name.at);
    });
    const auto sameInode = [](const Inode& one, const Inode& other) { return one.id == other.id; };
    inodes_.erase(std::unique(inodes_.begin(), inodes_.end(), sameInode), inodes_.end());
    std::ranges::sort(links_, [](const Link& one, const Link& other) {
        return std::tuple(one.id, other.origin.xid, one.isSibling, one.name.at)
            < std::tuple(other.id, one.origin.xid, other.isSibling, other.name.at);
    });
    std::ranges::sort(extents_, [](const Extent& one, const Extent& other) {
        return std::tuple(one.owner, one.logical, other.origin.xid, one.block)
            < std::tuple(other.owner, other.logical, one.origin.xid, other.block);
    });
    std::ranges::sort(attributes_, [](const Attribute& one, const Attribute& other) {
        return std::tuple(one.id, one.kind, other.origin.xid, one.target.at)
            < std::tuple(other.id, other.kind, one.origin.xid, other.target.at);
    });
    const auto sameAttribute = [](const Attribute& one, const Attribute& other) {
        return one.id == other.id && one.kind == other.kind;
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

std::span<const APFSFileRecords::Link> APFSFileRecords::linksOf(std::uint64_t id) const
{
    return equalRange(links_, id, &Link::id);
}

std::span<const APFSFileRecords::Extent> APFSFileRecords::extentsOf(std::uint64_t owner) const
{
    return equalRange(extents_, owner, &Extent::owner);
}
