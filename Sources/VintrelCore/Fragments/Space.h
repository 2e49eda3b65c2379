#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/RangeSet.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Fragments {

/// Where pieces of files begin and end: at every `unit` bytes from `range.start` on.
struct Grid {
    ByteRange range;
    std::uint64_t unit = 512;
};

/// What of the source is known to belong to something, and where pieces may begin in the rest.
class Space {
public:
    /// `grids`: of the volumes, apart from each other; elsewhere `otherwise` holds, which covers
    /// the whole source.
    Space(std::vector<Grid> grids, const Grid& otherwise);

    /// The range belongs to a file. Softly: a file of a kind that others hold inside themselves.
    void hold(const ByteRange& range) { held_.add(range.start, range.end); }
    void holdSoftly(const ByteRange& range) { softlyHeld_.add(range.start, range.end); }
    bool isHeld(std::uint64_t offset, bool isContainer) const;

    bool isAllHeld(const ByteRange& range) const;

    const Grid& gridAt(std::uint64_t offset) const;
    /// Where the free space ends that holds `offset`: at the next held byte, or at the grid's end.
    std::uint64_t endOfRun(std::uint64_t offset, const Grid& grid, bool isContainer) const;
    /// The first free unit at or behind `offset`; none up to the grid's end. An `offset` in front
    /// of the grid counts as its start.
    std::optional<std::uint64_t> freeUnitFrom(
        std::uint64_t offset, const Grid& grid, bool isContainer) const;
    /// The last free unit in front of `offset`.
    std::optional<std::uint64_t> freeUnitBefore(
        std::uint64_t offset, const Grid& grid, bool isContainer) const;

private:
    /// The end of the held range that touches [offset, offset + unit); none where the unit is free.
    std::optional<ByteRange> holderOf(
        std::uint64_t offset, std::uint64_t unit, bool isContainer) const;

    std::vector<Grid> grids_;
    Grid otherwise_;
    RangeSet held_;
    RangeSet softlyHeld_;
};

} // namespace Fragments
