#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <vector>

/// Which clusters of a volume are in use, as $Bitmap says.
class AllocationMap {
public:
    /// Reads the bitmap; no cluster is known when it cannot be had.
    static AllocationMap load(const NTFSContext& context, const FileData& bitmap);

    /// Whether some of the bitmap lies where nothing can be read.
    bool hasGaps() const { return !gaps_.empty(); }
    /// Whether nothing of the bitmap could be read.
    bool isUnreadable() const;

    /// What became of the clusters that hold `data`.
    ClusterUse useOf(const FileData& data, const NTFSGeometry& geometry) const;

    /// Adds the ranges of the source whose clusters are in use, ascending. False, and nothing
    /// added, when the bitmap does not tell it of every cluster that the source holds.
    bool addUsedRanges(const NTFSContext& context, std::vector<ByteRange>& ranges) const;

private:
    struct Gap {
        std::uint64_t start, end; ///< bytes of the bitmap
    };

    void append(DiskSource& source, const Extent& extent);
    void readPiece(DiskSource& source, std::uint64_t offset, std::span<std::uint8_t> piece,
        std::uint64_t start);
    void addGap(std::uint64_t start, std::uint64_t length);
    void countBlocks();
    /// How many of the clusters before `cluster`, which lies in the map, are in use.
    std::uint64_t countUsedBefore(std::uint64_t cluster) const;
    /// Adds what is known of `count` clusters from `first` on.
    void addUse(ClusterUse& use, std::uint64_t first, std::uint64_t count) const;
    bool isKnown(std::uint64_t first, std::uint64_t count) const;
    /// The next cluster from `from` on that is in use, or is not; `end` when there is none.
    std::uint64_t findNext(bool isUsed, std::uint64_t from, std::uint64_t end) const;

    Bytes bits_;
    /// How many clusters in front of each block of the map are in use, so that files of any size
    /// are asked after in no time.
    std::vector<std::uint64_t> usedBeforeBlock_;
    std::vector<Gap> gaps_; ///< that could not be read, ascending
};
