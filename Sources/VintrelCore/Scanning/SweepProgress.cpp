#include "VintrelCore/Scanning/SweepProgress.h"

#include "VintrelCore/Disk/DiskSource.h"

namespace {

constexpr std::chrono::milliseconds reportInterval { 300 };
constexpr std::chrono::milliseconds rateInterval { 900 };

using Seconds = std::chrono::duration<double>;

} // namespace

SweepProgress::SweepProgress(const DiskSource& source,
    const std::function<void(const DeepScanStats&)>& onUpdate, Clock::time_point now)
    : source_(source)
    , onUpdate_(onUpdate)
    , begin_(now)
    , lastReport_(now)
    , rateStart_(now)
{
    stats_.total = source.size();
}

void SweepProgress::report(
    const DeepScanResult& result, std::uint64_t position, Clock::time_point now, bool isLast)
{
    if (!onUpdate_ || (!isLast && now - lastReport_ <= reportInterval))
        return;
    lastReport_ = now;
    if (now - rateStart_ > rateInterval) {
        stats_.rate = static_cast<double>(position - rateStartPosition_)
            / Seconds(now - rateStart_).count();
        rateStart_ = now;
        rateStartPosition_ = position;
    }
    stats_.position = position;
    stats_.filesFound = result.carved.size();
    stats_.bootSectors = result.boots.size() + result.hfsHeaders.size() + result.nxsb.size();
    stats_.mftRecords = result.mftRecords.size();
    stats_.badSectors = source_.badSectorCount();
    stats_.elapsed = Seconds(now - begin_).count();
    onUpdate_(stats_);
}
