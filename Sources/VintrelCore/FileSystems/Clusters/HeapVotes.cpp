#include "VintrelCore/FileSystems/Clusters/HeapVotes.h"

#include <algorithm>
#include <utility>

void HeapVotes::add(std::uint64_t offset, std::uint32_t cluster, bool isLikely)
{
    for (int shift = minShift_; cluster >= 2 && shift <= maxShift_; ++shift)
        if (const auto distance = std::uint64_t { cluster - 2 } << shift; distance <= offset)
            votes_.push_back({ shift, offset - distance, cluster, isLikely });
}

std::optional<ClusterHeap> HeapVotes::winner()
{
    std::ranges::sort(votes_);
    votes_.erase(
        std::unique(votes_.begin(), votes_.end()), votes_.end()); // two from one cluster are one
    std::optional<ClusterHeap> best;
    std::pair<std::size_t, std::size_t> most { 2, 0 };
    for (std::size_t first = 0, end = 0; first < votes_.size(); first = end) {
        while (end < votes_.size() && votes_[end].shift == votes_[first].shift
            && votes_[end].heapOffset == votes_[first].heapOffset)
            ++end;
        const auto likely
            = std::ranges::count_if(votes_.begin() + static_cast<std::ptrdiff_t>(first),
                votes_.begin() + static_cast<std::ptrdiff_t>(end), &Vote::isLikely);
        const std::pair count { end - first, static_cast<std::size_t>(likely) };
        if (count >= most) {
            most = count;
            best = { .offset = votes_[first].heapOffset,
                .clusterSize = std::uint64_t { 1 } << votes_[first].shift };
        }
    }
    return best;
}
