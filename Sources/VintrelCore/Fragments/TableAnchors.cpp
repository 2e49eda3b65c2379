#include "VintrelCore/Fragments/TableAnchors.h"

#include "VintrelCore/Content/Formats/OLETable.h"

#include <algorithm>

// [MS-CFB], Compound File FAT Sectors; "TIFF Revision 6.0", Image File Directory.

namespace Fragments {

namespace {

using namespace Content::Formats;

constexpr std::size_t sectorSize = 512;
constexpr std::int64_t entries = sectorSize / sizeof(LE32);

std::uint32_t entryAt(ByteView sector, std::int64_t index)
{
    return sector.u32le(index * static_cast<std::int64_t>(sizeof(LE32)));
}

} // namespace

bool mayBeSectorTable(ByteView sector)
{
    constexpr std::uint32_t mostSectors = 1 << 24;
    constexpr int enough = 16; // numbers that go on from the one before
    if (sector.size() < sectorSize)
        return false;
    int rising = 0, ends = 0;
    for (std::int64_t i = 0; i < entries; ++i) {
        const auto entry = entryAt(sector, i);
        if (entry >= mostSectors && entry < oleFirstMark)
            return false;
        rising += i > 0 && entry < oleFirstMark && entry == entryAt(sector, i - 1) + 1;
        ends += entry == oleChainEnd || entry == oleTableSector;
    }
    return rising >= enough && ends > 0;
}

std::optional<std::uint64_t> shiftBySectorTable(
    BlockCache& cache, std::uint64_t offset, ByteView head)
{
    const auto header = head.load<OLEHeader>(0);
    const auto sector = cache.from(offset);
    if (!header || (header->sectorShift != 9 && header->sectorShift != 12))
        return std::nullopt;
    const auto perSector = std::uint64_t { 1 } << (header->sectorShift - 2);
    std::optional<std::uint64_t> found;
    std::int64_t most = entries / 4; // must go on from the one before at least
    for (std::size_t slot = 0; slot < OLEHeader::slots && slot < header->tableSectors; ++slot) {
        const std::uint64_t number = header->tableList[slot];
        const auto first = slot * perSector;
        const auto own = number - std::min(number, first);
        // The table says of its own sectors that they are its own.
        if (number >= oleFirstMark
            || (number >= first && own < static_cast<std::uint64_t>(entries)
                && entryAt(sector, static_cast<std::int64_t>(own)) != oleTableSector))
            continue;
        std::int64_t next = 0;
        for (std::int64_t i = 0; i < entries; ++i)
            next += entryAt(sector, i) == first + static_cast<std::uint64_t>(i) + 1;
        if (next > most) {
            most = next;
            found = offset - ((number + 1) << header->sectorShift);
        }
    }
    return found;
}

std::optional<std::uint64_t> shiftByRootEntry(std::uint64_t offset, ByteView head)
{
    const auto header = head.load<OLEHeader>(0);
    if (!header || (header->sectorShift != 9 && header->sectorShift != 12)
        || header->firstDirectorySector >= oleFirstMark)
        return std::nullopt;
    return offset - ((std::uint64_t { header->firstDirectorySector } + 1) << header->sectorShift);
}

std::optional<std::uint64_t> shiftByDirectory(
    BlockCache& cache, std::uint64_t offset, ByteView head)
{
    constexpr std::int64_t entrySize = 12;
    const bool isBigEndian = head.matches("MM", 0);
    if (!isBigEndian && !head.matches("II", 0))
        return std::nullopt;
    const auto directory = cache.from(offset);
    const auto u16
        = [&](std::int64_t at) { return isBigEndian ? directory.u16be(at) : directory.u16le(at); };
    const auto count = u16(0);
    const auto size = 2 + count * entrySize;
    if (count < 3 || size > static_cast<std::int64_t>(directory.size()))
        return std::nullopt;
    for (std::int64_t at = 2 + entrySize; at < size; at += entrySize)
        if (u16(at) <= u16(at - entrySize))
            return std::nullopt;
    const std::uint64_t position = isBigEndian ? head.u32be(4) : head.u32le(4);
    return offset - position;
}

} // namespace Fragments
