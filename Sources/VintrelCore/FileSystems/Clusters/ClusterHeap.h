#pragma once

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/FileData.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <span>
#include <vector>

/// A set of cluster numbers, one bit each.
class ClusterBits {
public:
    explicit ClusterBits(std::uint64_t count = 0)
        : words_(static_cast<std::size_t>((count + 63) / 64))
    {
    }

    /// Numbers beyond the set's size are never in it.
    bool contains(std::uint32_t cluster) const
    {
        return cluster / 64 < words_.size() && (words_[cluster / 64] >> cluster % 64 & 1) != 0;
    }
    void insert(std::uint32_t cluster)
    {
        if (cluster / 64 < words_.size())
            words_[cluster / 64] |= std::uint64_t { 1 } << cluster % 64;
    }
    void erase(std::uint32_t cluster)
    {
        if (cluster / 64 < words_.size())
            words_[cluster / 64] &= ~(std::uint64_t { 1 } << cluster % 64);
    }
    /// Whether any of the `count` numbers from `first` on is in the set. 64 are looked at in one
    /// step.
    bool containsAny(std::uint32_t first, std::uint64_t count) const;
    /// Calls `visit(first, count)` for the numbers in the set, those that follow each other at
    /// once, in ascending order. Empty words cost one step.
    template <class Visit> void forEachRun(Visit visit) const
    {
        std::uint64_t count = 0;
        const std::uint64_t end = words_.size() * 64;
        for (std::uint64_t bit = 0; bit <= end;) {
            const auto word
                = bit < end ? words_[static_cast<std::size_t>(bit / 64)] >> bit % 64 : 0;
            const auto inWord = 64 - bit % 64;
            if (word == 0) {
                if (count > 0)
                    visit(static_cast<std::uint32_t>(bit - count), count);
                count = 0;
                bit += inWord;
                continue;
            }
            const auto zeros = static_cast<std::uint64_t>(std::countr_zero(word));
            if (zeros > 0 && count > 0) {
                visit(static_cast<std::uint32_t>(bit - count), count);
                count = 0;
            }
            const auto ones = std::min(
                static_cast<std::uint64_t>(std::countr_one(word >> zeros)), inWord - zeros);
            count += ones;
            bit += zeros + ones;
        }
    }

private:
    std::vector<std::uint64_t> words_;
};

/// The clusters of a FAT or exFAT volume: the part of it that holds files. They are numbered
/// from 2.
struct ClusterHeap {
    std::uint64_t offset = 0;      ///< of cluster 2, in bytes on the source
    std::uint64_t clusterSize = 0; ///< in bytes
    std::uint32_t count = 0;       ///< valid clusters are 2 … count + 1

    bool contains(std::uint32_t cluster) const { return cluster >= 2 && cluster - 2 < count; }
    std::uint64_t size() const { return count * clusterSize; }
    /// Whether a byte of the source lies in a cluster.
    bool holds(std::uint64_t place) const
    {
        return place >= offset && (place - offset) / clusterSize < count;
    }
    /// How many clusters a source of so many bytes can hold at most.
    std::uint64_t clustersWithin(std::uint64_t sourceSize) const
    {
        return std::min<std::uint64_t>(count, unitsFor(sourceSize, clusterSize));
    }
    /// The place of a valid cluster.
    std::uint64_t offsetOf(std::uint32_t cluster) const
    {
        return offset + (cluster - 2) * clusterSize;
    }
    /// The cluster that begins at a place in the heap.
    std::uint32_t clusterAt(std::uint64_t place) const
    {
        return static_cast<std::uint32_t>((place - offset) / clusterSize + 2);
    }
    /// How many clusters `bytes` take up.
    std::uint64_t clustersFor(std::uint64_t bytes) const { return unitsFor(bytes, clusterSize); }
    /// How many clusters there are from a valid one to the end.
    std::uint64_t clustersFrom(std::uint32_t cluster) const
    {
        return std::uint64_t { count } + 2 - cluster;
    }
    /// The extents of the first `size` bytes in these valid clusters, neighbours merged.
    ExtentList extents(std::span<const std::uint32_t> clusters, std::uint64_t size) const;
    /// `size` bytes in one piece from a valid cluster on, cut at the end of the heap.
    Extent contiguous(std::uint32_t first, std::uint64_t size) const
    {
        return { offsetOf(first), std::min(size, clustersFrom(first) * clusterSize) };
    }
};

struct ClusterChain {
    std::vector<std::uint32_t> clusters;
    bool isComplete
        = false; ///< it ends with an end mark, or holds as many clusters as were asked for
};

/// Follows the chain that starts at `from`, at most `limit` clusters long. `next` gives a cluster's
/// entry in the allocation table, in which `endMark` and everything above it ends a chain. The
/// chain ends incomplete where it leaves the heap or loops. `seen` is scratch, empty before and
/// after; it has room for every cluster whose entry can lead on.
template <class Next>
ClusterChain followChain(const ClusterHeap& heap, std::uint32_t from, std::uint64_t limit,
    std::uint32_t endMark, ClusterBits& seen, Next next)
{
    ClusterChain chain;
    std::uint32_t cluster = from;
    while (true) {
        if (chain.clusters.size() >= limit) {
            chain.isComplete = true;
            break;
        }
        if (!heap.contains(cluster) || seen.contains(cluster))
            break;
        chain.clusters.push_back(cluster);
        seen.insert(cluster);
        const std::uint32_t entry = next(cluster);
        if (entry >= endMark) {
            chain.isComplete = true;
            break;
        }
        if (!heap.contains(entry)) // free, or a mark for a bad cluster
            break;
        cluster = entry;
    }
    for (const auto visited : chain.clusters)
        seen.erase(visited);
    return chain;
}

/// The chain of a file that lies in one piece from `from` on: `count` clusters, or as many as the
/// heap still has.
ClusterChain contiguousChain(const ClusterHeap& heap, std::uint32_t from, std::uint64_t count);
