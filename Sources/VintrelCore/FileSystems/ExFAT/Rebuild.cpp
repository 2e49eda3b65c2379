// exFAT volumes without a boot sector.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"
#include "VintrelCore/FileSystems/Clusters/TableSearch.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/FileSystems/ExFAT/LostDirectories.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"

#include <algorithm>

namespace ExFATParser {

using namespace ExFATEntries;

namespace {

constexpr LostHeapLimits limits { .maxClusterShift = ExFATGeometry::maxClusterShift,
    .maxClusters = ExFATGeometry::maxClusters,
    .rootSpace = 0,
    .foldersVote = true };

class ExFATLostHeaps : public LostHeaps {
public:
    using LostHeaps::LostHeaps;

private:
    Clues cluesOf(std::uint64_t sector) override
    {
        const auto bytes = source_.read(sector, soundSetsSize, ReadMode::thorough);
        Clues clues;
        clues.mayBegin = (bytes[0] & secondary) == 0;  // not in the middle of a set
        for (const std::size_t entry : { 0u, 1u, 2u }) // formatting puts the bitmap among the first
            clues.isRoot = clues.isRoot || bytes[entry * entrySize] == bitmapType;
        for (const auto& set : soundSets(bytes, 0)) {
            if (set.file->isDirectory())
                clues.addFolder(set.stream.firstCluster);
            else
                clues.addFile(set.stream.firstCluster, set.stream.size);
        }
        return clues;
    }

    /// Any sector of a directory may pass for its beginning, so that heaps which begin a few
    /// sectors too late explain as many folders as the true one. The table that maps small letters
    /// to large ones begins with the letters that map to themselves.
    bool confirmsHeap(std::uint64_t rootSector, const ClusterHeap& heap) override
    {
        constexpr std::uint8_t beginning[] = { 0, 0, 1, 0, 2, 0, 3, 0 };
        const auto root = source_.read(rootSector, 512, ReadMode::thorough);
        for (std::int64_t at = 0; const auto entry = ByteView(root).load<BitmapEntry>(at);
             at += entrySize)
            if (entry->type == upcaseType && entry->firstCluster >= 2
                && std::ranges::equal(beginning,
                    source_.read(
                        heap.offsetOf(entry->firstCluster), sizeof beginning, ReadMode::thorough)))
                return true;
        return false;
    }

    std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors) override
    {
        ExFATGeometry geometry;
        geometry.heap = lost.heap;
        const auto bitmap = bitmapOf(lost);
        if (bitmap) // each of its bits is a cluster
            geometry.heap.count = static_cast<std::uint32_t>(
                std::min<std::uint64_t>(geometry.heap.count, bitmap->size * 8));
        geometry.volumeSize = geometry.heap.size();
        if (bitmap && geometry.heap.holds(*lost.rootSector))
            findTable(geometry, *bitmap, geometry.heap.clusterAt(*lost.rootSector));
        auto context = std::make_unique<ExFATContext>(source_, geometry);
        if (bitmap)
            context->loadBitmap(bitmap->firstCluster, bitmap->size);
        const bool hasBitmap = !context->bitmapUnavailable();
        auto volume = volumeOf<ExFATLostDirectories>(
            std::move(context), FileSystemType::exfat, "exFAT", lost.rootSector, sectors);
        if (volume && !hasBitmap)
            volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
        return volume;
    }

    /// The entry of the allocation bitmap in the root directory; none where that is not known, or
    /// the bitmap cannot be this one.
    std::optional<BitmapEntry> bitmapOf(const LostHeap& lost)
    {
        if (!lost.rootSector)
            return std::nullopt;
        const auto root = source_.read(*lost.rootSector, 512, ReadMode::thorough);
        for (std::int64_t at = 0; const auto entry = ByteView(root).load<BitmapEntry>(at);
             at += entrySize)
            if (entry->type == bitmapType && (entry->flags & 1) == 0
                && lost.heap.contains(entry->firstCluster) && entry->size > 0
                && entry->size <= unitsFor(ExFATGeometry::maxClusters, 8))
                return entry;
        return std::nullopt;
    }

    /// Sets the place of the FAT that ends the chains of the root directory and the bitmap.
    void findTable(ExFATGeometry& geometry, const BitmapEntry& bitmap, std::uint32_t rootCluster)
    {
        constexpr std::uint64_t maxGap = 32 << 20; // formatting aligns the clusters
        const auto& heap = geometry.heap;
        const auto tableSize = (std::uint64_t { heap.count } + 2) * sizeof(LE32);
        const auto setTable = [&](std::uint64_t place) {
            geometry.fatOffset = place;
            geometry.fatSize = heap.offset - place;
            ExFATContext context(source_, geometry);
            const auto bitmapClusters = heap.clustersFor(bitmap.size);
            return context.chain(rootCluster, heap.count).isComplete
                && context.chain(bitmap.firstCluster, heap.count).clusters.size() == bitmapClusters;
        };
        const TableSearch search { .end = heap.offset,
            .length = 2 * tableSize + maxGap,
            .mayBegin = beginsTable,
            .isConfirmedAt = setTable };
        if (!search.last(source_))
            geometry.fatSize = 0;
    }

    static bool beginsTable(ByteView sector)
    {
        return sector.u32le(0) == 0xFFFFFFF8 && sector.u32le(4) == 0xFFFFFFFF;
    }
};

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress)
{
    return ExFATLostHeaps(source, hints, progress, limits).rebuild(sectors);
}

} // namespace ExFATParser
