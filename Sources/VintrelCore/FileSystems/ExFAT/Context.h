#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/ExFAT/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

class DiskSource;

/// A volume's geometry, its FAT and its allocation bitmap. Used by one thread at a time.
class ExFATContext {
public:
    /// Reads the FAT.
    ExFATContext(DiskSource& source, const ExFATGeometry& geometry);

    DiskSource& source() const { return source_; }
    const ExFATGeometry& geometry() const { return geometry_; }

    /// Whether there is no FAT to ask. Files are then taken to lie in one piece.
    bool fatUnavailable() const { return fatUnavailable_; }
    /// The next cluster, an end mark, or 0 where the table holds nothing.
    std::uint32_t entry(std::uint32_t cluster) const;
    static bool isEndMark(std::uint32_t entry) { return entry >= endMark; }
    /// The chain that starts at `from`, at most `maxClusters` long.
    ClusterChain chain(std::uint32_t from, std::uint64_t maxClusters);
    /// How many clusters can be in a chain.
    std::uint64_t entryCount() const;

    /// Reads the allocation bitmap, `size` bytes from `cluster` on.
    void loadBitmap(std::uint32_t cluster, std::uint64_t size);
    /// Whether what the bitmap says cannot be known.
    bool bitmapUnavailable() const { return bitmapUnavailable_; }
    /// Whether the bitmap calls the `count` clusters from `first` on free.
    bool areFree(std::uint32_t first, std::uint64_t count) const
    {
        return !used_.containsAny(first, count);
    }

    /// The clusters that the bitmap has in use.
    const ClusterBits& used() const { return used_; }
    /// How many sectors of a FAT that could be read otherwise are missing.
    std::uint64_t unreadableSectors() const { return unreadableSectors_; }

private:
    static constexpr std::uint32_t endMark
        = 0xFFFFFFF8; // FFFFFFF7 marks a bad cluster, FFFFFFFF the end

    DiskSource& source_;
    ExFATGeometry geometry_;
    Bytes fat_;
    bool fatUnavailable_ = true;
    std::uint64_t unreadableSectors_ = 0;
    bool bitmapUnavailable_ = true;
    ClusterBits used_;
    ClusterBits seen_; // scratch of chain(): empty between calls
};
