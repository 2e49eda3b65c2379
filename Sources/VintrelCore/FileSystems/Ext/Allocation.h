#pragma once

#include "VintrelCore/FileSystems/Ext/Groups.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <cstdint>
#include <map>
#include <vector>

/// Which blocks of a volume are in use, as its bitmaps say. Bitmaps are read when they are asked
/// for. Used by one thread at a time.
class ExtAllocation {
public:
    ExtAllocation(const ExtBlocks& blocks, const ExtGroups& groups)
        : blocks_(blocks)
        , groups_(groups)
    {
    }

    /// Where in the bitmap of its group the bit of a block lies.
    std::uint64_t bitOf(std::uint64_t block) const;
    /// Whether a bitmap says that the block is in use.
    bool isInUse(std::uint64_t block);
    /// Says that blocks are in use of which the bitmaps do not know yet.
    void hold(std::uint64_t first, std::uint64_t count);
    /// Adds the ranges of the source that are in use, ascending. False when nothing is known.
    bool addUsedRanges(std::vector<ByteRange>& ranges);

    /// The bits of a group; empty when they are not known.
    const Bytes& bitmapOf(std::uint32_t group);

private:
    Bytes unwrittenBitmap(std::uint32_t group) const;

    const ExtBlocks& blocks_;
    const ExtGroups& groups_;
    std::map<std::uint32_t, Bytes> bitmaps_; ///< empty: not known
};
