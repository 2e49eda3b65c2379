#include "VintrelCore/Content/Formats/OLETable.h"

#include <algorithm>

namespace Content::Formats {

namespace {

constexpr std::uint32_t maxTableSectors = 65'535;

} // namespace

std::optional<OLETable> OLETable::read(FileBytes& file, const OLEHeader& header)
{
    OLETable table;
    table.shift_ = header.sectorShift;
    const std::uint32_t count = header.tableSectors;
    if ((table.shift_ != 9 && table.shift_ != 12) || count < 1 || count > maxTableSectors)
        return table;
    std::vector<std::uint32_t> sectors;
    sectors.reserve(count);
    for (std::size_t i = 0; i < OLEHeader::slots && i < count; ++i)
        sectors.push_back(header.tableList[i]);
    // Each sector of the list that goes on elsewhere ends with the number of the next one.
    const auto slots = table.entriesPerSector() - 1;
    std::uint32_t list = header.firstListSector;
    while (sectors.size() < count && list < oleFirstMark) {
        const auto bytes
            = bytesAt(file, table.offsetOf(list), static_cast<std::size_t>(table.sectorSize()));
        if (bytes.size() < table.sectorSize())
            return std::nullopt;
        for (std::uint64_t slot = 0; slot < slots && sectors.size() < count; ++slot)
            sectors.push_back(ByteView(bytes).u32le(static_cast<std::int64_t>(slot * 4)));
        list = ByteView(bytes).u32le(static_cast<std::int64_t>(slots * 4));
    }
    const auto room = std::uint64_t { count } * table.entriesPerSector();
    const bool isSound = sectors.size() == count
        && std::ranges::all_of(sectors, [&](std::uint32_t sector) { return sector < room; });
    if (isSound)
        table.sectors_ = std::make_shared<const std::vector<std::uint32_t>>(std::move(sectors));
    return table;
}

std::uint32_t OLETable::entry(FileBytes& file, std::uint64_t sector) const
{
    if (sector >= room())
        return oleFree;
    const auto table = (*sectors_)[static_cast<std::size_t>(sector / entriesPerSector())];
    const auto slot = sector % entriesPerSector();
    return load<LE32>(file, offsetOf(table) + slot * sizeof(LE32)).value_or(LE32 { oleFree });
}

std::optional<std::uint64_t> OLEStream::placeOf(FileBytes& file, std::uint64_t offset)
{
    const auto wanted = offset / table_.sectorSize();
    for (; index_ < wanted; ++index_) {
        if (sector_ >= table_.room())
            return std::nullopt;
        sector_ = table_.entry(file, sector_);
    }
    if (sector_ >= table_.room() || wanted > table_.room())
        return std::nullopt;
    return table_.offsetOf(sector_) + offset % table_.sectorSize();
}

} // namespace Content::Formats
