#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Model/FileData.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

class DiskSource;

/// Reads the content of a fork in order or at any place, with one buffer whatever its length. Used
/// by one thread at a time; the source must outlive it.
class HFSPlusForkReader {
public:
    /// `pieces`: where the content lies, in its order. `size`: no more than they have room for.
    HFSPlusForkReader(DiskSource& source, const ExtentList& pieces, std::uint64_t size);

    std::uint64_t size() const { return size_; } ///< in bytes

    /// The bytes from `offset` on, fewer where the content ends; zeros where they cannot be read.
    /// The view holds until the next call. At most `windowSize` of them.
    ByteView view(std::uint64_t offset, std::size_t length);
    /// The same into a buffer that lies wholly inside the content.
    void read(std::uint64_t offset, std::span<std::uint8_t> into);

    /// Which bytes could not be read: unreadable sectors, and what lies beyond the source's end.
    /// Only what was read can be known.
    RangeSet lostParts() const;

    static constexpr std::size_t windowSize = 1'048'576;

private:
    struct Piece {
        std::uint64_t start = 0; ///< in the content
        Extent extent;
    };

    DiskSource& source_;
    const std::uint64_t size_;
    std::vector<Piece> pieces_; // ascending
    Bytes window_;
    std::uint64_t windowStart_ = 0;
};
