#include "VintrelCore/Fragments/Space.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

namespace Fragments {

namespace {

std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit)
{
    return unitsFor(value, unit) * unit;
}

} // namespace

Space::Space(std::vector<Grid> grids, const Grid& otherwise)
    : grids_(std::move(grids))
    , otherwise_(otherwise)
{
}

bool Space::isHeld(std::uint64_t offset, bool isContainer) const
{
    return held_.contains(offset) || (!isContainer && softlyHeld_.contains(offset));
}

bool Space::isAllHeld(const ByteRange& range) const
{
    const auto holder = held_.firstEndingBehind(range.start);
    return holder && holder->start <= range.start && holder->end >= range.end;
}

const Grid& Space::gridAt(std::uint64_t offset) const
{
    const auto found = std::ranges::find_if(grids_,
        [&](const Grid& grid) { return offset >= grid.range.start && offset < grid.range.end; });
    return found == grids_.end() ? otherwise_ : *found;
}

std::optional<ByteRange> Space::holderOf(
    std::uint64_t offset, std::uint64_t unit, bool isContainer) const
{
    auto holder = held_.firstEndingBehind(offset);
    if (!holder || holder->start >= offset + unit)
        holder = isContainer ? std::nullopt : softlyHeld_.firstEndingBehind(offset);
    return holder && holder->start < offset + unit ? holder : std::nullopt;
}

std::uint64_t Space::endOfRun(std::uint64_t offset, const Grid& grid, bool isContainer) const
{
    auto end = grid.range.end;
    if (const auto next = held_.firstEndingBehind(offset))
        end = std::min(end, std::max(next->start, offset));
    if (isContainer)
        return end;
    if (const auto next = softlyHeld_.firstEndingBehind(offset))
        end = std::min(end, std::max(next->start, offset));
    return end;
}

std::optional<std::uint64_t> Space::freeUnitFrom(
    std::uint64_t offset, const Grid& grid, bool isContainer) const
{
    const auto& [range, unit] = grid;
    auto at = range.start + roundUp(std::max(offset, range.start) - range.start, unit);
    while (at < range.end) {
        const auto holder = holderOf(at, unit, isContainer);
        if (!holder)
            return at;
        at = range.start + roundUp(std::max(holder->end, at + 1) - range.start, unit);
    }
    return std::nullopt;
}

std::optional<std::uint64_t> Space::freeUnitBefore(
    std::uint64_t offset, const Grid& grid, bool isContainer) const
{
    const auto& [range, unit] = grid;
    while (offset >= range.start + unit) {
        const auto at = range.start + roundDown(offset - range.start - unit, unit);
        const auto holder = holderOf(at, unit, isContainer);
        if (!holder)
            return at;
        offset = std::min(at, std::max(holder->start, range.start));
    }
    return std::nullopt;
}

} // namespace Fragments
