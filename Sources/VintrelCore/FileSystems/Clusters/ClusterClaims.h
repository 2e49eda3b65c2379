#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

#include <cstdint>

/// What the clusters of a volume are known to hold.
struct ClusterClaims {
    ClusterClaims() = default;
    /// Clusters that lie beyond the source's end are never claimed: a made-up volume may say that
    /// it has any number of them.
    ClusterClaims(const ClusterHeap& heap, std::uint64_t sourceSize)
        : claimed(heap.clustersWithin(sourceSize) + 2)
        , liveClusters(claimed)
    {
    }

    bool contains(std::uint32_t cluster) const
    {
        return claimed.contains(cluster) || liveClusters.contains(cluster);
    }
    bool containsAny(std::uint32_t first, std::uint64_t count) const
    {
        return claimed.containsAny(first, count) || liveClusters.containsAny(first, count);
    }

    ClusterBits claimed;      ///< directories that were read
    ClusterBits liveClusters; ///< existing files, and what the file system keeps for itself
};
