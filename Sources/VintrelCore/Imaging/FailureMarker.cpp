#include "VintrelCore/Imaging/FailureMarker.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <utility>

void FailureMarker::mark(const RangeMap::Block& range, RangeMap::Status status)
{
    const auto answers = source_.answers();
    if (std::exchange(answers_, answers) != answers)
        doubtful_.clear();
    if (source_.hasLeft()) {
        takeBack();
        return;
    }
    if (range.status == status)
        return;
    remember(range);
    map_.set(range.position, range.size, status);
    if (status == RangeMap::Status::bad)
        source_.markBad(range.position / source_.sectorSize());
}

void FailureMarker::takeBack()
{
    // Backwards: what failed in two passes had its first status before.
    for (; !doubtful_.empty(); doubtful_.pop_back()) {
        const auto& range = doubtful_.back();
        map_.set(range.position, range.size, range.status);
    }
}

void FailureMarker::remember(const RangeMap::Block& range)
{
    const bool isNext = !doubtful_.empty() && doubtful_.back().end() == range.position
        && doubtful_.back().status == range.status;
    if (isNext)
        doubtful_.back().size += range.size;
    else
        doubtful_.push_back(range);
}
