#pragma once

#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <chrono>
#include <cstdint>
#include <functional>

class DiskSource;

/// Tells of the progress of a sweep, seldom enough that it costs nothing: about three times a
/// second, and at the end. Used by one thread.
class SweepProgress {
public:
    using Clock = std::chrono::steady_clock;

    /// `onUpdate` may be empty. Both must outlive this.
    SweepProgress(const DiskSource& source,
        const std::function<void(const DeepScanStats&)>& onUpdate, Clock::time_point now);

    void countFile(const CarvedFile& file) { ++stats_.byExtension[file.ext]; }
    /// The sweep has come to `position`. `isLast`: tells it in any case.
    void report(const DeepScanResult& result, std::uint64_t position, Clock::time_point now,
        bool isLast = false);

private:
    const DiskSource& source_;
    const std::function<void(const DeepScanStats&)>& onUpdate_;
    DeepScanStats stats_;
    const Clock::time_point begin_;
    Clock::time_point lastReport_;
    Clock::time_point rateStart_;
    std::uint64_t rateStartPosition_ = 0;
};
