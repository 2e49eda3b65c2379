#include "VintrelCore/FileSystems/ExFAT/LostHeaps.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/FileSystems/ExFAT/Geometry.h"
#include "VintrelCore/FileSystems/ExFAT/LostDirectories.h"

using namespace ExFATEntries;

ExFATLostHeaps::ExFATLostHeaps(
    DiskSource& source, const DirectoryHints& hints, WorkProgress* progress)
    : LostHeaps(source, hints, progress,
        { .maxClusterShift = ExFATGeometry::maxClusterShift,
            .maxClusters = ExFATGeometry::maxClusters,
            .rootSpace = 0,
            .foldersVote = true })
{
}

LostHeaps::Clues ExFATLostHeaps::cluesOf(std::uint64_t sector)
{
    const auto bytes = source_.read(sector, soundSetsSize, ReadMode::thorough);
    Clues clues;
    clues.mayBegin = (bytes[0] & secondary) == 0; // not in the middle of a set
    for (const std::size_t entry : { 0, 1, 2 })   // formatting puts the bitmap among the first
        clues.isRoot = clues.isRoot || bytes[entry * entrySize] == bitmapType;
    for (const auto& set : soundSets(bytes, 0)) {
        const std::uint32_t cluster = set.stream.firstCluster;
        if (cluster < 2)
            continue;
        if (set.file->isDirectory())
            clues.folders.push_back(cluster);
        else
            clues.files.push_back({ .cluster = cluster, .size = set.stream.size });
    }
    return clues;
}

std::unique_ptr<Volume> ExFATLostHeaps::build(
    const LostHeap& lost, const std::vector<std::uint64_t>& sectors)
{
    ExFATGeometry geometry;
    geometry.heap = lost.heap;
    geometry.volumeSize = lost.heap.size();
    auto volume = volumeOf<ExFATLostDirectories>(std::make_unique<ExFATContext>(source_, geometry),
        FileSystemType::exfat, "exFAT", lost.rootSector, sectors);
    if (volume)
        volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
    return volume;
}
