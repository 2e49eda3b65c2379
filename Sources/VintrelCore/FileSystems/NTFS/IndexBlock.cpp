#include "VintrelCore/FileSystems/NTFS/IndexBlock.h"

#include "VintrelCore/FileSystems/NTFS/Layout.h"
#include "VintrelCore/FileSystems/NTFS/UpdateSequence.h"

#include <cstddef>

namespace NTFSParser {

namespace {

constexpr std::string_view signature = "INDX";
constexpr std::int64_t maxBlockSize = 65'536;

/// Index Record. The offsets of the entries count from `entriesOffset` on.
struct IndexHeader {
    std::array<std::uint8_t, 4> signature; //  0  "INDX"
    LE16 updateOffset, updateCount;        //  4, 6
    LE64 logSequence, vcn;                 //  8, 16
    LE32 entriesOffset, entriesEnd;        // 24, 28
    LE32 entriesAllocated, flags;          // 32, 36
};
static_assert(sizeof(IndexHeader) == indexHeaderSize);
constexpr std::int64_t entriesBase = offsetof(IndexHeader, entriesOffset);

/// Index Entry of a folder: its key is a $FILE_NAME, which begins with the folder.
struct IndexEntry {
    NTFSLayout::StoredReference file;   //  0
    LE16 length, keyLength;             //  8, 10
    LE16 flags, padding;                // 12, 14
    NTFSLayout::StoredReference folder; // 16
};
static_assert(sizeof(IndexEntry) == 24);
constexpr std::uint16_t lastEntry = 0x0002; // it has no key
constexpr std::uint16_t minKey = 66;        // a $FILE_NAME without its name

constexpr std::int64_t entryAlignment = 8;
constexpr std::uint8_t lastNameSpace = 3;

/// The name in an entry of a folder, when its lengths fit each other.
std::optional<FNInfo> nameIn(ByteView bytes, const IndexEntry& entry)
{
    const auto key = bytes.sub(offsetof(IndexEntry, folder), entry.keyLength);
    auto name = entry.keyLength > minKey && entry.length % entryAlignment == 0
            && entry.length >= offsetof(IndexEntry, folder) + entry.keyLength
            && entry.length <= bytes.size()
        ? fileNameIn(key)
        : std::nullopt;
    constexpr std::int64_t lengthOffset = minKey - 2;
    const bool isWhole = name && minKey + 2 * key.u8(lengthOffset) == entry.keyLength;
    return isWhole && name->nameSpace <= lastNameSpace ? std::move(name) : std::nullopt;
}

} // namespace

std::optional<std::size_t> sizeOfIndexBlock(ByteView header)
{
    const auto stored = header.load<IndexHeader>(0);
    if (!stored || !header.matches(signature, 0) || stored->updateCount < 2)
        return std::nullopt;
    const std::int64_t size = (stored->updateCount - 1) * updateSectorSize;
    return size <= maxBlockSize ? std::optional(static_cast<std::size_t>(size)) : std::nullopt;
}

std::optional<FileReference> folderOfIndexBlock(std::span<std::uint8_t> bytes)
{
    const ByteView block(bytes);
    const auto header = block.load<IndexHeader>(0);
    if (!header || !block.matches(signature, 0)
        || !applyUpdateSequence(bytes, header->updateOffset, header->updateCount))
        return std::nullopt;
    std::optional<FileReference> folder;
    const auto entries = block.sub(entriesBase, header->entriesEnd);
    // Entries are never empty, so that the block bounds their number.
    for (std::int64_t at = header->entriesOffset;;) {
        const auto entry = entries.load<IndexEntry>(at);
        if (!entry || entry->length < sizeof(IndexEntry) || (entry->flags & lastEntry) != 0)
            return folder;
        const FileReference named = entry->folder;
        if (entry->keyLength < minKey || (folder && *folder != named))
            return std::nullopt;
        folder = named;
        at += entry->length;
    }
}

void forEachIndexEntry(std::span<std::uint8_t> bytes,
    const std::function<void(FileReference file, FNInfo& name)>& visit)
{
    const ByteView block(bytes);
    const auto header = block.load<IndexHeader>(0);
    if (!header || !block.matches(signature, 0)
        || !applyUpdateSequence(bytes, header->updateOffset, header->updateCount))
        return;
    const auto entries = block.sub(entriesBase, static_cast<std::int64_t>(bytes.size()));
    for (std::int64_t at = header->entriesOffset;;) {
        const auto entry = entries.load<IndexEntry>(at);
        if (!entry)
            return;
        auto name = nameIn(entries.sub(at, static_cast<std::int64_t>(entries.size())), *entry);
        if (name)
            visit(entry->file, *name);
        at += name ? std::int64_t { entry->length } : entryAlignment;
    }
}

} // namespace NTFSParser
