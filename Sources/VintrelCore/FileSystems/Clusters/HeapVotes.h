#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

#include <compare>
#include <cstdint>
#include <vector>

/// Finds out where the clusters of a volume lie from what is known to lie in some of them.
class HeapVotes {
public:
    /// `minShift`, `maxShift`: the cluster sizes that are possible, as powers of two.
    HeapVotes(int minShift, int maxShift)
        : minShift_(minShift)
        , maxShift_(maxShift)
    {
    }

    /// What lies at a byte of the source may lie in this cluster.
    void add(std::uint64_t offset, std::uint32_t cluster);

    /// The offsets and cluster sizes that most votes from different clusters agree on, at least
    /// two, in ascending order of the sizes. Of many in a draw those with the largest clusters. The
    /// count of clusters is left open. Empty when no two votes agree.
    std::vector<ClusterHeap> winners();

private:
    struct Vote {
        int shift;
        std::uint64_t heapOffset;
        std::uint32_t cluster;

        auto operator<=>(
            const Vote&) const = default; // NOLINT(modernize-use-nullptr): what = default makes
    };

    int minShift_;
    int maxShift_;
    std::vector<Vote> votes_;
};
