// FAT volumes without a boot sector.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"
#include "VintrelCore/FileSystems/Clusters/TableSearch.h"
#include "VintrelCore/FileSystems/FAT/Context.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/FileSystems/FAT/LostDirectories.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"

#include <algorithm>

namespace FATParser {

using namespace FATEntries;

namespace {

/// Of the root directory of FAT12 and FAT16, before the first cluster: 512 entries.
constexpr std::uint64_t usualRootSize = 16'384;

constexpr LostHeapLimits limits { .maxClusterShift = 20, // 1 MiB
    .maxClusters = FATGeometry::maxClusters,
    .rootSpace = usualRootSize,
    .foldersVote = false };

class FATLostHeaps : public LostHeaps {
public:
    using LostHeaps::LostHeaps;

private:
    Clues cluesOf(std::uint64_t sector) override
    {
        const auto bytes = source_.read(sector, directorySectorSize, ReadMode::thorough);
        Clues clues { .ownCluster = ownCluster(bytes) };
        clues.mayBegin = clues.ownCluster.has_value();
        if (clues.mayBegin) {
            const auto above = ByteView(bytes).load<ShortEntry>(entrySize);
            clues.isBelowRoot = firstCluster(*above) == 0;
        }
        forEachEntry(bytes, [&](const ShortEntry& entry) {
            const auto cluster = firstCluster(entry);
            if (isSubfolder(entry))
                clues.addFolder(cluster);
            else if ((entry.attributes & directoryFlag) == 0)
                clues.addFile(cluster, entry.size);
        });
        return clues;
    }

    /// Before the clusters, where FAT12 and FAT16 have it, or in the first one.
    std::vector<std::uint64_t> usualRoots(const ClusterHeap& heap) override
    {
        std::vector<std::uint64_t> roots { heap.offset - std::min(heap.offset, usualRootSize),
            heap.offset };
        std::erase_if(roots, [&](std::uint64_t offset) {
            const auto sector = source_.read(offset, directorySectorSize, ReadMode::thorough);
            return ownCluster(sector) || !continuesDirectory(sector);
        });
        return roots;
    }

    std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors) override
    {
        auto rootOffset = lost.rootSector;
        FATGeometry geometry;
        geometry.type = FATGeometry::typeFor(lost.heap.count);
        if (rootOffset && *rootOffset < lost.heap.offset) { // a fixed one, from its start on
            rootOffset = std::min(*rootOffset, sectors.front());
            if (geometry.type == FileSystemType::fat32)
                geometry.type = FileSystemType::fat16;
        }
        geometry.bytesPerSector = directorySectorSize;
        geometry.heap = lost.heap;
        geometry.volumeSize = lost.heap.size();
        findTables(geometry, sectors);
        return volumeOf<FATLostDirectories>(
            std::make_unique<FATContext>(source_, geometry, FATContext::SecondFAT::forZeros),
            geometry.type, "FAT", rootOffset, sectors);
    }

    /// Sets the place of the FAT, and of its copy, where directories have their chains in it.
    void findTables(FATGeometry& geometry, std::span<const std::uint64_t> sectors)
    {
        const auto beginnings = beginningsIn(geometry.heap, sectors);
        const auto tableSize = (std::uint64_t { geometry.heap.count } + 2) * sizeof(LE32);
        const auto typeByCount = geometry.type;
        TableSearch search { .end = geometry.heap.offset,
            .length = 2 * roundUp(tableSize) + usualRootSize,
            .mayBegin =
                [](ByteView sector) {
                    return sector.u8(0) != 0xFF
                        && FATContext::beginsTable(sector); // FF ends chains
                },
            .isConfirmedAt =
                [&](std::uint64_t place) {
                    return setTable(geometry, place, geometry.heap.offset - place, beginnings);
                } };
        const auto last = search.last(source_);
        if (!last) {
            geometry = withoutTable(geometry, typeByCount);
            return;
        }
        auto both = geometry;
        search.end = *last;
        search.length = geometry.fatSize;
        search.isConfirmedAt = [&](std::uint64_t place) {
            return setTable(both, place, *last - place, beginnings) && both.type == geometry.type;
        };
        if (search.last(source_)) {
            geometry = both;
            geometry.fatCount = 2;
        }
    }

    static FATGeometry withoutTable(FATGeometry geometry, FileSystemType type)
    {
        geometry.type = type;
        geometry.fatSize = 0;
        return geometry;
    }

    /// Whether a FAT at this place has the chains of two directories, or of the only one. Sets it
    /// as the volume's, in the width in which it has most of them. Deleted directories have none.
    bool setTable(FATGeometry& geometry, std::uint64_t place, std::uint64_t size,
        std::span<const std::uint32_t> beginnings)
    {
        geometry.fatOffset = place;
        geometry.fatSize = size;
        geometry.fatCount = 1;
        std::size_t most = 0;
        auto best = geometry.type;
        for (const auto type :
            { FileSystemType::fat32, FileSystemType::fat16, FileSystemType::fat12 }) {
            geometry.type = type;
            FATContext context(source_, geometry);
            if (context.fatUnavailable())
                return false;
            const auto chained
                = static_cast<std::size_t>(std::ranges::count_if(beginnings, [&](auto cluster) {
                      return context.chain(cluster, geometry.heap.count).isComplete;
                  }));
            if (chained > most)
                best = type;
            most = std::max(most, chained);
        }
        geometry.type = best;
        return most > 0 && most >= std::min<std::size_t>(2, beginnings.size());
    }

    /// The clusters in which directories begin, as many of them as are asked for their chains.
    std::vector<std::uint32_t> beginningsIn(
        const ClusterHeap& heap, std::span<const std::uint64_t> sectors)
    {
        constexpr std::size_t maxBeginnings = 256;
        std::vector<std::uint32_t> beginnings;
        for (const auto sector : sectors) {
            const auto own = heap.holds(sector) ? cluesOf(sector).ownCluster : std::nullopt;
            if (own && heap.contains(*own) && heap.offsetOf(*own) == sector
                && beginnings.size() < maxBeginnings)
                beginnings.push_back(*own);
        }
        return beginnings;
    }

    static std::uint64_t roundUp(std::uint64_t size)
    {
        return unitsFor(size, directorySectorSize) * directorySectorSize;
    }
};

} // namespace

namespace {

/// Months and days from 1 on, or nothing at all.
bool isPossible(std::uint16_t date)
{
    const unsigned month = date >> 5 & 0x0F;
    const unsigned day = date & 0x1F;
    return date == 0 || (month >= 1 && month <= 12 && day >= 1);
}

/// Whether the first two files or folders of a directory sector have dates that can be. Text in
/// columns passes for entries otherwise.
bool hasPossibleDates(ByteView sector)
{
    constexpr int checkedEntries = 2;
    int count = 0;
    bool arePossible = true;
    forEachEntry(sector, [&](const ShortEntry& entry) {
        if (count++ < checkedEntries)
            arePossible = arePossible && isPossible(entry.modificationDate)
                && isPossible(entry.creationDate);
    });
    return arePossible;
}

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress)
{
    std::vector<std::uint64_t> believed;
    std::ranges::copy_if(sectors, std::back_inserter(believed), [&](std::uint64_t sector) {
        return hasPossibleDates(source.read(sector, directorySectorSize, ReadMode::thorough));
    });
    return FATLostHeaps(source, hints, progress, limits).rebuild(believed);
}

} // namespace FATParser
