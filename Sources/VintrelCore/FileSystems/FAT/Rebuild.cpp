// FAT volumes without a boot sector.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"
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
        return volumeOf<FATLostDirectories>(std::make_unique<FATContext>(source_, geometry),
            geometry.type, "FAT", rootOffset, sectors);
    }
};

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress)
{
    return FATLostHeaps(source, hints, progress, limits).rebuild(sectors);
}

} // namespace FATParser
