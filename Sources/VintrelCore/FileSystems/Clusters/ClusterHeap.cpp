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
