#include "VintrelCore/FileSystems/NTFS/Shadow/Catalog.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>
#include <map>

namespace NTFSShadow {

namespace {

constexpr std::uint64_t maxCatalogBlocks = 256; ///< for 16,000 shadow copies
constexpr std::size_t maxStores = 512;          ///< as many as systems allow

/// What was found of a store so far.
struct HalfStore {
    std::optional<StoredDates> dates;
    std::optional<StoredPlaces> places;
};
using HalfStores = std::map<GUID, HalfStore>;

void addEntry(HalfStores& stores, ByteView entry)
{
    const auto dates = *entry.load<StoredDates>(0);
    if (dates.type == storeDates)
        stores[dates.store].dates = dates;
    const auto places = *entry.load<StoredPlaces>(0);
    if (places.type == storePlaces)
        stores[places.store].places = places;
}

std::uint64_t catalogOffset(DiskSource& source, std::uint64_t base)
{
    const auto bytes
        = source.read(base + volumeHeaderOffset, sizeof(StoredVolumeHeader), ReadMode::thorough);
    const auto header = *ByteView(bytes).load<StoredVolumeHeader>(0);
    const bool isHeader = header.identifier == identifier && header.type == volumeHeader;
    return isHeader ? std::uint64_t { header.catalogOffset } : 0;
}

} // namespace

std::vector<Store> readCatalog(DiskSource& source, std::uint64_t base)
{
    if (base >= source.size() || source.size() - base < volumeHeaderOffset)
        return {};
    ChainBudget budget { maxCatalogBlocks };
    ChainReader chain(source, base, catalog, catalogOffset(source, base), budget);
    HalfStores halves;
    while (const auto block = chain.next())
        for (std::int64_t at = 0; at + catalogEntrySize <= static_cast<std::int64_t>(block->size());
             at += catalogEntrySize)
            addEntry(halves, block->sub(at, catalogEntrySize));
    std::vector<Store> stores;
    for (const auto& [guid, half] : halves)
        if (half.dates && half.places && stores.size() < maxStores)
            stores.push_back({ .created = TimeConversion::fromFiletime(half.dates->created),
                .sequence = half.dates->sequence,
                .blockList = half.places->blockList });
    std::ranges::stable_sort(stores, {}, &Store::sequence);
    return stores;
}

} // namespace NTFSShadow
