#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

#include <algorithm>
#include <numeric>

bool ClusterBits::containsAny(std::uint32_t first, std::uint64_t count) const
{
    const std::uint64_t end = std::min<std::uint64_t>(first + count, words_.size() * 64);
    for (std::uint64_t bit = first; bit < end;) {
        const std::uint64_t word = words_[static_cast<std::size_t>(bit / 64)] >> bit % 64;
        const std::uint64_t inWord = std::min(64 - bit % 64, end - bit);
        if ((inWord == 64 ? word : word & ((std::uint64_t { 1 } << inWord) - 1)) != 0)
            return true;
        bit += inWord;
    }
    return false;
}

ExtentList ClusterHeap::extents(std::span<const std::uint32_t> clusters, std::uint64_t size) const
{
    ExtentList extents;
    for (std::size_t first = 0; first < clusters.size() && size > 0;) {
        std::size_t end = first + 1;
        while (end < clusters.size() && clusters[end] == clusters[end - 1] + 1)
            ++end;
        const std::uint64_t length = std::min<std::uint64_t>(size, (end - first) * clusterSize);
        extents.push_back({ offsetOf(clusters[first]), length });
        size -= length;
        first = end;
    }
    return extents;
}

ClusterChain contiguousChain(const ClusterHeap& heap, std::uint32_t from, std::uint64_t count)
{
    ClusterChain chain;
    if (!heap.contains(from))
        return chain;
    chain.clusters.resize(static_cast<std::size_t>(std::min(heap.clustersFrom(from), count)));
    std::iota(chain.clusters.begin(), chain.clusters.end(), from);
    chain.isComplete = true;
    return chain;
}

std::uint64_t DirectoryHints::endBehind(std::uint64_t last, std::uint64_t sourceSize) const
{
    std::uint64_t end = sourceSize;
    for (const auto start : volumeStarts)
        if (start > last)
            end = std::min(end, start);
    return end;
}

void HeapVotes::add(std::uint64_t offset, std::uint32_t cluster)
{
    for (int shift = minShift_; cluster >= 2 && shift <= maxShift_; ++shift)
        if (const auto distance = std::uint64_t { cluster - 2 } << shift; distance <= offset)
            votes_.push_back({ shift, offset - distance, cluster });
}

std::optional<ClusterHeap> HeapVotes::winner()
{
    std::ranges::sort(votes_);
    votes_.erase(
        std::unique(votes_.begin(), votes_.end()), votes_.end()); // two from one cluster are one
    std::optional<ClusterHeap> best;
    std::size_t most = 2;
    for (std::size_t first = 0, end = 0; first < votes_.size(); first = end) {
        while (end < votes_.size() && votes_[end].shift == votes_[first].shift
            && votes_[end].heapOffset == votes_[first].heapOffset)
            ++end;
        if (end - first >= most) {
            most = end - first;
            best = { .offset = votes_[first].heapOffset,
                .clusterSize = std::uint64_t { 1 } << votes_[first].shift };
        }
    }
    return best;
}
