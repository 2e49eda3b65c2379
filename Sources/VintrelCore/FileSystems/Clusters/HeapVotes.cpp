#include "VintrelCore/FileSystems/Clusters/HeapVotes.h"

#include <algorithm>

void HeapVotes::add(std::uint64_t offset, std::uint32_t cluster)
{
    for (int shift = minShift_; cluster >= 2 && shift <= maxShift_; ++shift)
        if (const auto distance = std::uint64_t { cluster - 2 } << shift; distance <= offset)
            votes_.push_back({ shift, offset - distance, cluster });
}

std::vector<ClusterHeap> HeapVotes::winners()
{
    constexpr std::size_t maxWinners = 64;
    std::ranges::sort(votes_);
    votes_.erase(
        std::unique(votes_.begin(), votes_.end()), votes_.end()); // two from one cluster are one
    std::vector<ClusterHeap> best;
    std::size_t most = 2;
    for (std::size_t first = 0, end = 0; first < votes_.size(); first = end) {
        while (end < votes_.size() && votes_[end].shift == votes_[first].shift
            && votes_[end].heapOffset == votes_[first].heapOffset)
            ++end;
        if (end - first < most)
            continue;
        if (end - first > most || best.size() == maxWinners)
            best.clear();
        most = end - first;
        best.push_back({ .offset = votes_[first].heapOffset,
            .clusterSize = std::uint64_t { 1 } << votes_[first].shift });
    }
    return best;
}
