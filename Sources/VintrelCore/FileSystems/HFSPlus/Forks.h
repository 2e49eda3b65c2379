#pragma once

#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/FileSystems/HFSPlus/ForkReader.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

class DiskSource;

/// Allocation blocks of a volume in a row.
struct HFSPlusExtent {
    std::uint32_t startBlock = 0;
    std::uint32_t blockCount = 0;
};
using HFSPlusExtents = std::vector<HFSPlusExtent>;

/// Where the forks of one volume lie, and which of its blocks are in use. Used by one thread at a
/// time; the source must outlive it.
class HFSPlusForks {
public:
    /// Reads the extents overflow file and the allocation file. Without the former, files in many
    /// pieces lose the later ones; without the latter, `hasAllocation` is false.
    HFSPlusForks(DiskSource& source, std::uint64_t base, const HFSPlusFormat::VolumeHeader& header);

    std::uint64_t blockSize() const { return blockSize_; } ///< in bytes
    bool hasAllocation() const { return !allocation_.empty(); }
    /// What is known of the tree of the extents overflow file.
    const HFSPlusTreeHealth& overflowHealth() const { return overflowHealth_; }
    /// Whether the allocation file ends before the volume does.
    bool isAllocationShort() const;
    /// How many bytes of the allocation file could not be read.
    std::uint64_t lostAllocationBytes() const { return lostAllocation_.total(); }

    /// The extents that the fork's own record names.
    static HFSPlusExtents inlineExtents(const HFSPlusFormat::ForkData& fork);
    /// These, and those that follow on in the extents overflow file.
    HFSPlusExtents allExtents(const HFSPlusFormat::ForkData& fork, std::uint32_t fileID,
        HFSPlusFormat::Fork kind = HFSPlusFormat::Fork::data) const;

    /// A reader of a metadata file, of at most `cap` bytes of it, and no more than the source has.
    HFSPlusForkReader open(
        const HFSPlusFormat::ForkData& fork, std::uint32_t fileID, std::uint64_t cap) const;

    /// The first `length` bytes of an extent, on the source; without offset when they begin beyond
    /// the source's end.
    Extent pieceOf(const HFSPlusExtent& extent, std::uint64_t length) const;
    bool isOnSource(const Extent& piece) const;

    /// What became of the blocks of a deleted file of `size` bytes.
    ClusterUse useOf(const HFSPlusExtents& extents, std::uint64_t size) const;
    /// Adds the ranges of the source that blocks in use take up. False, and nothing added, when the
    /// allocation file could not be read wholly, or is too short for the volume.
    bool addUsedRanges(std::vector<ByteRange>& ranges) const;

private:
    /// A record of the extents overflow file.
    struct OverflowExtents {
        std::uint32_t start = 0; ///< block of the file at which they begin
        std::uint32_t node = 0;  ///< in which the record lies
        HFSPlusExtents extents;
    };

    void loadOverflow(const HFSPlusFormat::ForkData& extentsFile);
    void addOverflow(ByteView record, std::uint32_t node);
    void loadAllocation(const HFSPlusFormat::ForkData& allocationFile);
    bool isAllocated(std::uint64_t block) const;
    void countAllocated();
    std::uint64_t allocatedBefore(std::uint64_t block) const;
    bool isLost(std::uint64_t firstBlock, std::uint64_t count) const;
    std::optional<std::uint64_t> offsetOf(std::uint64_t block) const;

    DiskSource& source_;
    const std::uint64_t base_;
    const std::uint64_t blockSize_;
    const std::uint64_t totalBlocks_;
    std::unordered_map<std::uint64_t, std::vector<OverflowExtents>>
        overflow_; // by file and fork, ascending once loaded
    HFSPlusTreeHealth overflowHealth_;
    std::vector<std::uint32_t> allocatedBefore_; // by groups of bytes of the allocation file
    Bytes allocation_;                           // empty: could not be read
    RangeSet lostAllocation_;                    // bytes of it that are not known
};
