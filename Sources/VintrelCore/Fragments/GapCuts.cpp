// The part of the search that finds where a file may end in one piece, and where it may go on.

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Fragments/GapSearch.h"
#include "VintrelCore/Fragments/Kinds.h"

#include <algorithm>

namespace Fragments {

namespace {

constexpr std::size_t mostCuts = 96;
constexpr std::size_t mostUnitsAhead = 6144;
constexpr std::uint64_t mostBytesAhead = 67'108'864;
constexpr std::uint64_t shareBehind = 3; ///< a third as many behind

} // namespace

/// The places in the last piece between what is firm and the contradiction, in rising order.
std::vector<GapSearch::Cut> GapSearch::cutsOf(const Assembly& assembly) const
{
    const auto found = follow(assembly.pieces);
    if (found.isComplete())
        return {};
    return cutsBetween(assembly, found.firm, found.brokenAt.value_or(sizeOf(assembly.pieces)));
}

std::vector<GapSearch::Cut> GapSearch::cutsBetween(
    const Assembly& assembly, std::uint64_t lowest, std::uint64_t highest) const
{
    const auto& last = assembly.pieces.back();
    const auto& grid = space_.gridAt(last.start);
    const auto before = sizeOf(assembly.pieces) - (last.end - last.start);
    const auto phase = (last.start - grid.range.start) % grid.unit;
    lowest = std::max(lowest, before + 1);
    auto position = before + unitsFor(lowest - before + phase, grid.unit) * grid.unit - phase;
    std::vector<Cut> cuts;
    if (position > highest)
        return cuts;
    const auto looksForeign = [&](std::uint64_t at) {
        return !looksCompressed(cache_.from(last.start + (at - before)));
    };
    // What does not look like the file's own is none of it. One unit of zeros may be: an encoder
    // writes them where nothing moves.
    if (isCompressed_) {
        for (auto at = position; at < highest; at += grid.unit)
            if (looksForeign(at) && looksForeign(at + grid.unit))
                highest = at;
    }
    const auto count = (highest - position) / grid.unit + 1;
    if (count > mostCuts)
        position += (count - mostCuts) * grid.unit;
    PiecedBytes file(cache_, assembly.pieces, end_);
    auto checker = Content::checkerFor(extension_);
    for (; position <= highest; position += grid.unit) {
        file.growTo(position);
        checker->advance(file);
        if (checker->finding().isBroken())
            break;
        cuts.push_back({ position, checker->copy() });
        if (checker->finding().isPacked && looksForeign(position)
            && looksForeign(position + grid.unit))
            break;
    }
    return cuts;
}

/// The free units ahead of the first cut, nearest first, and then those behind.
std::vector<std::uint64_t> GapSearch::unitsAround(
    const Assembly& assembly, std::uint64_t firstCut) const
{
    const auto& last = assembly.pieces.back();
    const auto& grid = space_.gridAt(last.start);
    const auto before = sizeOf(assembly.pieces) - (last.end - last.start);
    const auto most = std::max<std::size_t>(
        1, std::min<std::uint64_t>(mostUnitsAhead, mostBytesAhead / grid.unit));
    std::vector<std::uint64_t> units;
    auto ahead = space_.freeUnitFrom(last.start + (firstCut - before), grid, isContainer_);
    for (std::size_t count = 0; ahead && count < most; ++count) {
        if (mayGoOnAt(*ahead))
            units.push_back(*ahead);
        ahead = space_.freeUnitFrom(*ahead + grid.unit, grid, isContainer_);
    }
    auto behind = space_.freeUnitBefore(last.start, grid, isContainer_);
    for (std::size_t count = 0; behind && count < most / shareBehind; ++count) {
        if (mayGoOnAt(*behind))
            units.push_back(*behind);
        behind = space_.freeUnitBefore(*behind, grid, isContainer_);
    }
    return units;
}

/// Whether the unit's first bytes do not speak against it, whatever comes before it.
bool GapSearch::mayGoOnAt(std::uint64_t unit) const
{
    return !beginnings_.contains(unit) && (!isCompressed_ || looksCompressed(cache_.from(unit)));
}

} // namespace Fragments
