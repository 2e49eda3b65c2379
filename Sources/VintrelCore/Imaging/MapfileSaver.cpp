#include "VintrelCore/Imaging/MapfileSaver.h"

#include "VintrelCore/Imaging/ImageFile.h"
#include "VintrelCore/Imaging/Imager.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <algorithm>

namespace {

constexpr std::chrono::seconds shortestInterval { 5 };
constexpr int shareOfTime = 10;

} // namespace

bool MapfileSaver::isDue(Clock::time_point now) const
{
    return now - lastEnd_
        > std::max<Clock::duration>(shortestInterval, shareOfTime * lastDuration_);
}

void MapfileSaver::save(const ImagingStats& stats)
{
    const auto start = Clock::now();
    flush();
    error_ = map_.write(path_, stats.position, stats.pass);
    if (error_)
        warnOnce("fremskridtet kunne ikke gemmes i " + path_, error_);
    lastEnd_ = Clock::now();
    lastDuration_ = lastEnd_ - start;
}

void MapfileSaver::flush()
{
    if (const auto error = image_.flush()) {
        hasFlushFailed_ = true;
        for (const auto& range : image_.unflushed())
            map_.set(range.start, range.end - range.start, RangeMap::Status::nonTried);
        warnOnce("billedfilen kunne ikke gemmes på disken", error);
    }
    image_.clearUnflushed();
}

void MapfileSaver::warnOnce(const std::string& what, SystemError error)
{
    if (!hasWarned_ && warn_)
        warn_(what + ": " + error.message());
    hasWarned_ = true;
}
