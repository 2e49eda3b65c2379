#include "VintrelCore/FileSystems/Ext/Directory.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"

using namespace ExtFormat;

namespace ExtDirectory {

namespace {

constexpr std::int64_t headSize = sizeof(DirectoryEntry);
constexpr std::uint16_t maxType = 7;

/// How many bytes an entry says that it takes. 64 KiB do not fit into the field.
std::int64_t lengthOf(const DirectoryEntry& entry, std::int64_t blockSize)
{
    constexpr std::int64_t largest = 65536;
    const std::int64_t length = entry.length;
    return blockSize == largest && (length == 0 || length == 65535) ? largest : length;
}

std::int64_t neededBy(const DirectoryEntry& entry)
{
    return (headSize + entry.nameLength + 3) / 4 * 4;
}

bool isName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".."
        && name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

std::string_view nameAt(ByteView block, std::int64_t at, const DirectoryEntry& entry)
{
    const auto bytes = block.sub(at + headSize, entry.nameLength);
    const void* const text = bytes.data();
    return { static_cast<const char*>(text), bytes.size() };
}

/// Entries that were taken out by adding their room to that of the one before.
void visitDeleted(const ExtGeometry& geometry, ByteView block, std::int64_t from, std::int64_t end,
    const Visit& visit)
{
    while (from + headSize < end) {
        const auto entry = block.load<DirectoryEntry>(from).value_or(DirectoryEntry {});
        const auto name = nameAt(block, from, entry);
        const auto length = lengthOf(entry, static_cast<std::int64_t>(block.size()));
        const bool isEntry = entry.inode != 0 && entry.inode <= geometry.inodeCount()
            && entry.type <= maxType && isName(name) && from + neededBy(entry) <= end
            && length >= neededBy(entry) && length % 4 == 0;
        if (isEntry)
            visit({ entry.inode, name, entry.type, true });
        from += isEntry ? neededBy(entry) : 4;
    }
}

} // namespace

bool forEachEntry(const ExtGeometry& geometry, ByteView block, const Visit& visit)
{
    const auto size = static_cast<std::int64_t>(block.size());
    for (std::int64_t at = 0; at + headSize <= size;) { // every entry takes some bytes
        const auto entry = block.load<DirectoryEntry>(at).value_or(DirectoryEntry {});
        const auto length = lengthOf(entry, size);
        if (length < headSize || length % 4 != 0 || length > size - at)
            return false;
        const auto name = nameAt(block, at, entry);
        const bool isUsed = entry.inode != 0 && headSize + entry.nameLength <= length;
        if (isUsed && entry.inode <= geometry.inodeCount() && isName(name))
            visit({ entry.inode, name, entry.type, false });
        const bool isTail = entry.inode == 0 && entry.type == checksumEntryType;
        if (!isTail)
            visitDeleted(geometry, block, at + (isUsed ? neededBy(entry) : 0), at + length, visit);
        at += length;
    }
    return true;
}

std::uint32_t selfIn(ByteView block)
{
    const auto entry = block.load<DirectoryEntry>(0).value_or(DirectoryEntry {});
    return entry.length == 12 && nameAt(block, 0, entry) == "." ? std::uint32_t { entry.inode } : 0;
}

std::uint32_t parentIn(ByteView block)
{
    constexpr std::int64_t second = 12;
    const auto entry = block.load<DirectoryEntry>(second).value_or(DirectoryEntry {});
    return selfIn(block) != 0 && nameAt(block, second, entry) == ".."
        ? std::uint32_t { entry.inode }
        : 0;
}

bool fits(
    const ExtGeometry& geometry, ByteView block, std::uint32_t number, std::uint32_t generation)
{
    const auto tail = static_cast<std::int64_t>(block.size()) - checksumEntrySize;
    const auto entry = block.load<DirectoryEntry>(tail).value_or(DirectoryEntry {});
    if (entry.inode != 0 || entry.length != checksumEntrySize || entry.type != checksumEntryType)
        return false;
    return ExtChecksums::crc32c(ExtInodes::seedOf(geometry, number, generation), block.sub(0, tail))
        == block.u32le(tail + headSize);
}

} // namespace ExtDirectory
