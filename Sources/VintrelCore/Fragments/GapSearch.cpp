#include "VintrelCore/Fragments/GapSearch.h"

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cmath>

namespace Fragments {

namespace {

constexpr std::size_t mostCuts = 256;
constexpr std::size_t mostUnitsAhead = 6144;
constexpr std::uint64_t mostBytesAhead = 67'108'864;
constexpr std::uint64_t shareBehind = 3; ///< a third as many behind
constexpr std::size_t mostSurvivors = 4096;
constexpr std::size_t mostRoughSurvivors = 512; ///< of kinds that can tell the smoothest
constexpr std::size_t mostUnfinished = 4;
constexpr std::uint64_t firstUnits = 2;
constexpr std::uint64_t moreUnits = 24;
constexpr std::uint64_t sampleStep = 512;
constexpr std::uint64_t costOfTrial = 64; ///< in bytes looked at: of a copy that breaks at once

/// How much rougher a file is just now than it was before a cut.
double strainOf(const Content::Finding& now, const Content::Finding& before)
{
    constexpr double least = 4; // even where all is of one colour
    if (before.usualRoughness == 0)
        return 0;
    return now.roughness / std::max(before.usualRoughness, least);
}

/// Where a break shows at the latest: a contradiction, or the end of what can be read.
std::uint64_t breakOf(const Content::Finding& finding, std::uint64_t size)
{
    return finding.brokenAt.value_or(size);
}

} // namespace

GapSearch::GapSearch(BlockCache& cache, const Space& space,
    const std::unordered_set<std::uint64_t>& beginnings, std::string_view extension,
    const WorkProgress* progress)
    : cache_(cache)
    , space_(space)
    , beginnings_(beginnings)
    , extension_(extension)
    , progress_(progress)
    , isContainer_(holdsOthers(extension))
    , isCompressed_(isCompressed(extension))
{
}

ByteRange GapSearch::pieceFrom(std::uint64_t offset) const
{
    return { offset, space_.endOfRun(offset, space_.gridAt(offset), isContainer_) };
}

Content::Finding GapSearch::follow(const std::vector<ByteRange>& pieces) const
{
    PiecedBytes file(cache_, pieces);
    file.growToEnd();
    const auto checker = Content::checkerFor(extension_);
    checker->advance(file);
    return checker->finding();
}

GapSearch::Result GapSearch::search(const Assembly& assembly, Budget& budget) const
{
    Result result;
    const auto cuts = cutsOf(assembly);
    if (cuts.empty())
        return result;
    const auto units = unitsAround(assembly, cuts.front().position);
    std::vector<Survivor> survivors;
    // A contradiction shows soon: the last cuts are the likeliest.
    for (auto cut = cuts.rbegin(); cut != cuts.rend(); ++cut)
        for (const auto unit : units) {
            if (budget.isSpent() || isCancelled(progress_) || survivors.size() >= mostSurvivors) {
                result.wasCutShort = true;
                followSurvivors(assembly, std::move(survivors), budget, result);
                return result;
            }
            if (auto survivor = tryUnit(assembly, *cut, unit, budget)) {
                survivor->lastCut = cuts.back().position;
                survivors.push_back(*survivor);
            }
        }
    followSurvivors(assembly, std::move(survivors), budget, result);
    return result;
}

GapSearch::Result GapSearch::searchMapped(
    const Assembly& assembly, std::uint64_t shift, Budget& budget) const
{
    Result result;
    const auto cuts = cutsOf(assembly);
    std::vector<Survivor> survivors;
    for (auto cut = cuts.rbegin(); cut != cuts.rend(); ++cut) {
        const auto unit = cut->position + shift;
        const auto& grid = space_.gridAt(assembly.pieces.front().start);
        const bool isUnit = unit >= grid.range.start && unit < grid.range.end
            && (unit - grid.range.start) % grid.unit == 0;
        if (isUnit && !space_.isHeld(unit, isContainer_))
            survivors.push_back(
                { .cut = &*cut, .unit = unit, .strain = 0, .lastCut = cuts.back().position });
    }
    followSurvivors(assembly, std::move(survivors), budget, result);
    return result;
}

/// The places in the last piece between what is firm and the contradiction, in rising order.
std::vector<GapSearch::Cut> GapSearch::cutsOf(const Assembly& assembly) const
{
    const auto found = follow(assembly.pieces);
    const auto& last = assembly.pieces.back();
    const auto& grid = space_.gridAt(last.start);
    const auto before = sizeOf(assembly.pieces) - (last.end - last.start);
    const auto brokenAt = breakOf(found, sizeOf(assembly.pieces));
    std::vector<Cut> cuts;
    if (found.isComplete() || brokenAt < before + 1)
        return cuts;
    // The first cut behind the piece's start and not in front of what is firm.
    const auto firstFirm = std::max(found.firm, before + 1);
    const auto phase = (last.start - grid.range.start) % grid.unit;
    auto position = before + unitsFor(firstFirm - before + phase, grid.unit) * grid.unit - phase;
    if (position > brokenAt)
        return cuts;
    const auto count = (brokenAt - position) / grid.unit + 1;
    if (count > mostCuts)
        position += (count - mostCuts) * grid.unit;
    PiecedBytes file(cache_, assembly.pieces);
    auto checker = Content::checkerFor(extension_);
    for (; position <= brokenAt; position += grid.unit) {
        file.growTo(position);
        checker->advance(file);
        if (checker->finding().isBroken())
            break;
        cuts.push_back({ position, checker->copy() });
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

std::vector<ByteRange> GapSearch::joined(
    const Assembly& assembly, const Cut& cut, std::uint64_t unit) const
{
    auto pieces = cutTo(assembly.pieces, cut.position);
    auto piece = pieceFrom(unit);
    // What the file has already does not come a second time.
    for (const auto& [start, end] : pieces) {
        if (start <= unit && unit < end)
            return {};
        if (start > unit)
            piece.end = std::min(piece.end, start);
    }
    pieces.push_back(piece);
    return pieces;
}

std::optional<GapSearch::Survivor> GapSearch::tryUnit(
    const Assembly& assembly, const Cut& cut, std::uint64_t unit, Budget& budget) const
{
    auto pieces = joined(assembly, cut, unit);
    if (pieces.empty() || pieces[pieces.size() - 2].end == unit)
        return std::nullopt;
    const auto size = space_.gridAt(unit).unit;
    PiecedBytes file(cache_, std::move(pieces));
    const auto checker = cut.checker->copy();
    const auto before = cut.checker->finding();
    budget.take(costOfTrial);
    Survivor survivor { .cut = &cut, .unit = unit, .strain = 0, .lastCut = 0 };
    // First a little of it, since nearly all break at once; then enough to tell a rough join.
    for (const auto most : { firstUnits * size, moreUnits * size }) {
        const auto step = most == firstUnits * size ? most : std::max(sampleStep, most / 32);
        while (file.size() < std::min(cut.position + most, file.sizeOfAll())) {
            const auto from = std::max(checker->finding().checked, cut.position);
            file.growTo(std::max(file.size(), cut.position) + step);
            checker->advance(file);
            const auto& finding = checker->finding();
            budget.take(breakOf(finding, finding.checked) - std::min(from, finding.checked));
            if (finding.isBroken())
                return std::nullopt;
            survivor.strain = std::max(survivor.strain, strainOf(finding, before));
            if (finding.isComplete())
                return survivor;
        }
    }
    return survivor;
}

/// Follows those that are left to their ends, the smoothest first. What is rougher than a right
/// join may be is left out without a doubt.
void GapSearch::followSurvivors(
    const Assembly& assembly, std::vector<Survivor> survivors, Budget& budget, Result& result) const
{
    const auto likeness
        = [](const Survivor& survivor) { return survivor.strain == 0 ? 1 : survivor.strain; };
    std::ranges::stable_sort(survivors, {}, likeness);
    if (survivors.size() > mostRoughSurvivors && survivors.back().strain > 0) {
        result.wasCutShort |= likeness(survivors[mostRoughSurvivors]) <= mostStrain;
        survivors.resize(mostRoughSurvivors);
    }
    for (const auto& survivor : survivors) {
        if (budget.isSpent() || isCancelled(progress_)) {
            result.wasCutShort = true;
            break;
        }
        if (followToEnd(assembly, survivor, budget, result))
            return;
    }
    std::ranges::stable_sort(result.unfinished, std::ranges::greater {}, &Assembly::promise);
    if (result.unfinished.size() > mostUnfinished) {
        result.unfinished.resize(mostUnfinished);
        for (auto& next : result.unfinished)
            next.isDoubtful = true;
    }
}

/// Whether checksums prove the file that comes of it, so that nothing else needs to be tried.
bool GapSearch::followToEnd(
    const Assembly& assembly, const Survivor& survivor, Budget& budget, Result& result) const
{
    constexpr double closeUnits = 8; // in front of a contradiction: cuts as likely as the last
    auto pieces = joined(assembly, *survivor.cut, survivor.unit);
    if (pieces.empty())
        return false;
    PiecedBytes file(cache_, pieces);
    file.growToEnd();
    const auto checker = survivor.cut->checker->copy();
    checker->advance(file);
    const auto& finding = checker->finding();
    const auto reached = breakOf(finding, finding.checked);
    const auto gained = reached - std::min(reached, survivor.cut->position);
    budget.take(costOfTrial + gained);
    const auto strain = std::max(assembly.strain, survivor.strain);
    if (!finding.isComplete()) {
        const auto unit = static_cast<double>(space_.gridAt(survivor.unit).unit);
        const auto before
            = static_cast<double>(survivor.lastCut - survivor.cut->position) / unit / closeUnits;
        const auto promise = static_cast<double>(gained) / std::max(strain, 1.0) / (1 + before);
        result.unfinished.push_back({ .pieces = std::move(pieces),
            .strain = strain,
            .isDoubtful = assembly.isDoubtful,
            .promise = promise });
        return false;
    }
    result.solutions.push_back({ .pieces = cutTo(std::move(pieces), *finding.length),
        .proof = finding.proof,
        .strain = strain,
        .isStrainKnown = finding.usualRoughness > 0,
        .isDoubtful = assembly.isDoubtful });
    return finding.proof == Content::Proof::checksum;
}

} // namespace Fragments
