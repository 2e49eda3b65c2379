#include "VintrelCore/FileSystems/FAT/LostHeaps.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FAT/Context.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/FileSystems/FAT/Geometry.h"
#include "VintrelCore/FileSystems/FAT/LostDirectories.h"
#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>

using namespace FATEntries;

namespace {

constexpr int maxClusterShift = 20; // 1 MiB

/// Of the root directory of FAT12 and FAT16, before the first cluster: 512 entries.
constexpr std::uint64_t usualRootSize = 16'384;

} // namespace

FATLostHeaps::FATLostHeaps(DiskSource& source, const DirectoryHints& hints, WorkProgress* progress)
    : LostHeaps(source, hints, progress,
        { .maxClusterShift = maxClusterShift,
            .maxClusters = FATGeometry::maxClusters,
            .rootSpace = usualRootSize,
            .foldersVote = false })
{
}

LostHeaps::Clues FATLostHeaps::cluesOf(std::uint64_t sector)
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
        if (cluster < 2)
            return;
        if (isSubfolder(entry))
            clues.folders.push_back(cluster);
        else if ((entry.attributes & directoryFlag) == 0)
            clues.files.push_back({ .cluster = cluster, .size = entry.size });
    });
    return clues;
}

/// Before the clusters, where FAT12 and FAT16 have it, or in the first one.
std::vector<std::uint64_t> FATLostHeaps::usualRoots(const ClusterHeap& heap)
{
    std::vector<std::uint64_t> roots { heap.offset - std::min(heap.offset, usualRootSize),
        heap.offset };
    std::erase_if(roots, [&](std::uint64_t offset) {
        const auto sector = source_.read(offset, directorySectorSize, ReadMode::thorough);
        return ownCluster(sector) || !continuesDirectory(sector);
    });
    return roots;
}

std::unique_ptr<Volume> FATLostHeaps::build(
    const LostHeap& lost, const std::vector<std::uint64_t>& sectors)
{
    auto rootOffset = lost.rootSector;
    FATGeometry geometry;
    geometry.type = FATGeometry::typeFor(lost.heap.count);
    if (rootOffset && *rootOffset < lost.heap.offset) { // a fixed one, from its first sector on
        rootOffset = std::min(*rootOffset, sectors.front());
        if (geometry.type == FileSystemType::fat32)
            geometry.type = FileSystemType::fat16;
    }
    geometry.bytesPerSector = directorySectorSize;
    geometry.heap = lost.heap;
    geometry.volumeSize = lost.heap.size();
    return volumeOf<FATLostDirectories>(
        std::make_unique<FATContext>(source_, geometry), geometry.type, "FAT", rootOffset, sectors);
}
