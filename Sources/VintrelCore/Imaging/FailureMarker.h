#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Imaging/RangeMap.h"

#include <cstdint>
#include <vector>

class DiskSource;

/// Enters into a map what could not be read. When the source turns out to have left, all that
/// failed since it last answered gets back the status that it had: a disk that is pulled out is not
/// damaged. Used by one thread.
class FailureMarker {
public:
    FailureMarker(RangeMap& map, DiskSource& source)
        : map_(map)
        , source_(source)
    {
    }

    /// Just now the range could not be read. It has one status, which becomes `status`.
    void mark(const RangeMap::Block& range, RangeMap::Status status);

private:
    void takeBack();
    void remember(const RangeMap::Block& range);

    RangeMap& map_;
    DiskSource& source_;
    std::uint64_t answers_ = 0;             ///< of the source, when the first of these failed:
    std::vector<RangeMap::Block> doubtful_; ///< as they were before
};
