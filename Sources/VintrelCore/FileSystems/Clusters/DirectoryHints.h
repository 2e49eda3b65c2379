#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

#include <cstdint>
#include <vector>

struct CarvedFile;

/// What helps to tell which directory sectors of lost volumes belong together.
struct DirectoryHints {
    std::vector<ClusterHeap>
        heaps; ///< of the volumes of this kind that are known: what fits there is theirs
    std::vector<std::uint64_t> volumeStarts; ///< of known volumes of every kind
    const std::vector<CarvedFile>& carved;   ///< files found by content

    /// Where a volume ends at the latest that has something at `last`: where the next one begins,
    /// or the source ends.
    std::uint64_t endBehind(std::uint64_t last, std::uint64_t sourceSize) const;
};
