#include "VintrelCore/Scanning/FullScan.h"

#include "VintrelCore/Scanning/LostVolumes.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <algorithm>
#include <iterator>

VolumeList FullScan::run(DiskSource& source, const std::optional<DeepScanOptions>& deep,
    WorkProgress* progress, const Listener& listener)
{
    auto quick = QuickScanner::run(source, progress);
    if (listener.quickScanDone)
        listener.quickScanDone(quick.notes);
    auto volumes = std::move(quick.volumes);
    if (!deep)
        return volumes;

    const auto finds = DeepScanner(source, *deep).run(progress);
    if (listener.sweepDone)
        listener.sweepDone(finds);
    auto lost = LostVolumes::find(source, finds, volumes, progress);
    std::ranges::move(lost, std::back_inserter(volumes));
    // After the lost volumes: what belongs to one of those is no lost file of another.
    LostVolumes::addLostFiles(source, volumes, finds, progress);
    if (!finds.carved.empty())
        volumes.push_back(DeepScanner::carvedVolume(source, finds.carved));
    return volumes;
}
