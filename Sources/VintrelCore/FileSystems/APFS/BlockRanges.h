#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"

#include <cstdint>
#include <optional>
#include <vector>

/// A set of blocks that is collected first and asked afterwards. A container has as many extents as
/// all its files have pieces, and collecting them in any order takes a quarter of the memory of a
/// RangeSet. Used by one thread at a time.
class APFSBlockRanges {
public:
    void add(APFSBlocks blocks) { ranges_.push_back(blocks); }
    /// Makes the set ready for being asked. More can be added afterwards, and merged again.
    void merge();

    /// Whether any of the blocks is in the set, as it was merged last.
    bool intersects(APFSBlocks blocks) const;
    /// Whether all of the blocks are.
    bool covers(APFSBlocks blocks) const;
    /// The range that holds a block; none when it is not in the set.
    std::optional<APFSBlocks> rangeWith(std::uint64_t block) const;

    /// The first range that ends behind a block: the one that holds it, or the next one.
    std::optional<APFSBlocks> firstEndingBehind(std::uint64_t block) const;

private:
    std::vector<APFSBlocks> ranges_; // once merged: ascending, apart from each other
};
