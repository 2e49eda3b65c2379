#include "VintrelCore/Scanning/FullScan.h"

#include "VintrelCore/FileSystems/VolumeLoader.h"
#include "VintrelCore/Scanning/Overlay.h"
#include "VintrelCore/Scanning/PiecedFiles.h"
#include "VintrelCore/Scanning/RecycleBin.h"

#include <algorithm>
#include <iterator>
#include <span>

namespace {

std::unique_ptr<Volume> carvedFiles(DiskSource& source, const DeepScanResult& finds)
{
    auto volume = DeepScanner::carvedVolume(source, finds.carved);
    if (finds.carvingRanOut)
        volume->notes.emplace_back("Søgningen blev afkortet, fordi der var for mange filer uden "
                                   "slutning: filer kan mangle.");
    return volume;
}

} // namespace

VolumeList FullScan::run(
    DiskSource& source, const Options& options, WorkProgress* progress, const Listener& listener)
{
    auto quick = QuickScanner::run(source, progress);
    if (listener.quickScanDone)
        listener.quickScanDone(quick);
    if (options.deep)
        QuickScanner::readDeepOnly(source, quick, progress);
    auto volumes = std::move(quick.volumes);
    if (!options.deep) {
        if (options.fragments)
            PiecedFiles::settleDeleted(source, volumes, options.look, progress);
        RecycleBin::noteOriginalPaths(source, volumes, progress);
        return volumes;
    }
    auto deep = *options.deep;
    deep.noteBrokenHeads = options.fragments;

    VolumeLoader::readAgain(source, volumes, progress);
    auto finds = DeepScanner(source, deep).run(progress, listener.sweeping);
    if (listener.sweepDone)
        listener.sweepDone(finds);
    const auto knownCount = volumes.size();
    // Also those in which no file system was recognised: its first sectors may be what is lost.
    std::vector<std::uint64_t> starts;
    std::ranges::transform(
        quick.layout.entries, std::back_inserter(starts), &PartitionEntry::offset);
    auto lost = DeepScanner::buildVolumes(source, finds, volumes, progress, starts);
    std::ranges::move(lost, std::back_inserter(volumes));
    // After the lost volumes: what belongs to one of those is no lost file of another.
    for (auto& [volume, folder] : DeepScanner::extraFolders(source, volumes, finds, progress))
        volume->root->add(std::move(folder));
    const std::span all(volumes);
    const auto known = all.first(knownCount);
    Overlay::judge(source, known, all.subspan(knownCount));
    auto snapshots = DeepScanner::snapshots(source, known, progress);
    auto ofLost = DeepScanner::snapshots(source, all.subspan(knownCount), progress);
    Overlay::judge(source, known, ofLost);
    for (auto* more : { &snapshots, &ofLost })
        std::ranges::move(*more, std::back_inserter(volumes));
    RecycleBin::noteOriginalPaths(source, volumes, progress);
    if (options.fragments) {
        PiecedFiles::settleDeleted(source, volumes, Fragments::Look::contents, progress);
        PiecedFiles::putTogether(source, volumes, finds, progress);
    }
    Overlay::overrule(finds.carved, volumes);
    if (!finds.carved.empty())
        volumes.push_back(carvedFiles(source, finds));
    return volumes;
}
