#pragma once

#include "VintrelCore/Fragments/Look.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Scanning/DeepScan.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <functional>
#include <optional>

class DiskSource;
class WorkProgress;

/// Everything that can be found on a source, in the order in which it is found.
namespace FullScan {

/// Hears of what the user is told on the way. Each may be empty.
struct Listener {
    std::function<void(const QuickScanner::ScanResult& result)> quickScanDone;
    std::function<void(const DeepScanStats& stats)> sweeping {}; ///< a few times a second
    std::function<void(const DeepScanResult& finds)> sweepDone;
};

/// What a scan looks for.
struct Options {
    std::optional<DeepScanOptions> deep = {}; ///< none: no deep scan
    bool fragments = false; ///< whether files in pieces are put together by their content
    /// Of those, how much of the deleted ones is looked at without a deep scan.
    Fragments::Look look = Fragments::Look::contents;
};

/// The volumes that the tables of the source name and, with options for a deep scan, the lost ones,
/// lost files of all of them, and last the files found by content. When cancelled, what was found
/// so far. `progress` may be none. Runs on the calling thread.
VolumeList run(DiskSource& source, const Options& options, WorkProgress* progress,
    const Listener& listener = {});
inline VolumeList run(DiskSource& source, const std::optional<DeepScanOptions>& deep,
    WorkProgress* progress, const Listener& listener = {})
{
    return run(source, Options { .deep = deep }, progress, listener);
}

} // namespace FullScan
