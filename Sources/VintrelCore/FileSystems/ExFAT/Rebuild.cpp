// exFAT volumes without a boot sector.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/LostHeaps.h"
#include "VintrelCore/FileSystems/ExFAT/Context.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/FileSystems/ExFAT/LostDirectories.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"

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

    std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors) override
    {
        ExFATGeometry geometry;
        geometry.heap = lost.heap;
        geometry.volumeSize = lost.heap.size();
        auto volume
            = volumeOf<ExFATLostDirectories>(std::make_unique<ExFATContext>(source_, geometry),
                FileSystemType::exfat, "exFAT", lost.rootSector, sectors);
        if (volume)
            volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
        return volume;
    }
};

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress)
{
    return ExFATLostHeaps(source, hints, progress, limits).rebuild(sectors);
}

} // namespace ExFATParser
