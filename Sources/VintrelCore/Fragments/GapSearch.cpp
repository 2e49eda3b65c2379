#include "VintrelCore/Fragments/GapSearch.h"

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Fragments {

namespace {

constexpr std::size_t mostSurvivors = 2048;
constexpr std::size_t mostRoughSurvivors = 512; ///< of kinds that can tell the smoothest
constexpr std::size_t mostUnfinished = 6;
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
    const std::optional<KnownEnd>& end, const WorkProgress* progress)
    : cache_(cache)
    , space_(space)
    , beginnings_(beginnings)
    , extension_(extension)
    , end_(end)
    , progress_(progress)
    , isContainer_(holdsOthers(extension))
    , isCompressed_(isCompressed(extension))
    , hasChecksums_(hasChecksums(extension))
{
}

ByteRange GapSearch::pieceFrom(std::uint64_t offset) const
{
    return { offset, space_.endOfRun(offset, space_.gridAt(offset), isContainer_) };
}

Content::Finding GapSearch::follow(const std::vector<ByteRange>& pieces) const
{
    PiecedBytes file(cache_, pieces, end_);
    file.growToEnd();
    const auto checker = Content::checkerFor(extension_);
    checker->advance(file);
    return checker->finding();
}

void GapSearch::Result::add(Result&& other)
{
    std::ranges::move(other.solutions, std::back_inserter(solutions));
    std::ranges::move(other.unfinished, std::back_inserter(unfinished));
    wasCutShort |= other.wasCutShort;
}

GapSearch::Result GapSearch::search(const Assembly& assembly, Budget& budget) const
{
    const auto cuts = cutsOf(assembly);
    if (cuts.empty())
        return {};
    return searchFrom(cuts, unitsAround(assembly, cuts.front().position), assembly, budget);
}

GapSearch::Result GapSearch::searchAt(
    const std::vector<std::uint64_t>& units, const Assembly& assembly, Budget& budget) const
{
    auto cuts = cutsOf(assembly);
    const auto& last = assembly.pieces.back();
    const auto before = sizeOf(assembly.pieces) - (last.end - last.start);
    std::erase_if(cuts, [&](const Cut& cut) {
        const auto end = last.start + (cut.position - before);
        return end != last.end && std::ranges::find(units, end) == units.end();
    });
    return searchFrom(cuts, units, assembly, budget);
}

/// Goes on from each cut at each unit.
GapSearch::Result GapSearch::searchFrom(const std::vector<Cut>& cuts,
    const std::vector<std::uint64_t>& units, const Assembly& assembly, Budget& budget) const
{
    constexpr std::size_t cutsInBatch = 16;
    Result result;
    if (cuts.empty())
        return result;
    const Batch emptied { &assembly, {}, cuts.back().position };
    auto batch = emptied;
    std::size_t count = 0;
    // A contradiction shows soon: the last cuts are the likeliest.
    for (auto cut = cuts.rbegin(); cut != cuts.rend() && !result.wasCutShort; ++cut) {
        for (const auto unit : units) {
            if (isBlind(*cut))
                break; // it would take any bytes for the next ones
            const bool isFull = batch.survivors.size() >= mostSurvivors;
            result.wasCutShort |= budget.isSpent() || isCancelled(progress_);
            result.wasCutShort |= isFull && !hasChecksums_;
            if (result.wasCutShort)
                break;
            if (isFull && followSurvivors(std::exchange(batch, emptied), budget, result))
                return result;
            if (const auto survivor = tryUnit(assembly, *cut, unit, budget))
                batch.survivors.push_back(*survivor);
        }
        if (hasChecksums_ && ++count % cutsInBatch == 0
            && followSurvivors(std::exchange(batch, emptied), budget, result))
            return result;
    }
    followSurvivors(std::move(batch), budget, result);
    return result;
}

GapSearch::Result GapSearch::searchMapped(
    const Assembly& assembly, std::uint64_t shift, Budget& budget) const
{
    Result result;
    const auto& grid = space_.gridAt(assembly.pieces.front().start);
    const auto isUnit = [&](std::uint64_t offset) {
        return offset >= grid.range.start && offset < grid.range.end
            && (offset - grid.range.start) % grid.unit == 0 && !space_.isHeld(offset, isContainer_);
    };
    const auto& last = assembly.pieces.back();
    const auto before = sizeOf(assembly.pieces) - (last.end - last.start);
    // The latest cut that is possible, to learn where the first wrong byte may be.
    const auto phase = (last.start - grid.range.start) % grid.unit;
    auto latest = before + roundDown(last.end - last.start + phase, grid.unit) - phase;
    while (latest > before && !isUnit(latest + shift))
        latest -= std::min(grid.unit, latest - before);
    if (latest <= before)
        return result;
    auto pieces = cutTo(assembly.pieces, latest);
    pieces.push_back(pieceFrom(latest + shift));
    const auto finding = follow(pieces);
    budget.take(finding.checked);
    const auto highest = std::min(latest, breakOf(finding, latest));
    const auto lowest = std::max(finding.firm, before + 1);
    const auto cuts = cutsBetween(assembly, lowest, highest);
    if (cuts.empty())
        return result;
    Batch batch { &assembly, {}, cuts.back().position };
    for (auto cut = cuts.rbegin(); cut != cuts.rend(); ++cut)
        if (isUnit(cut->position + shift))
            batch.survivors.push_back({ .cut = &*cut, .unit = cut->position + shift });
    followSurvivors(std::move(batch), budget, result);
    return result;
}

std::vector<Solution> GapSearch::slid(const Solution& solution, Budget& budget) const
{
    constexpr int mostSteps = 64;
    std::vector<Solution> others;
    for (std::size_t join = 1; join < solution.pieces.size(); ++join)
        for (const bool isBack : { true, false }) {
            auto pieces = solution.pieces;
            for (int step = 0; step < mostSteps && !budget.isSpent(); ++step) {
                auto& left = pieces[join - 1];
                auto& right = pieces[join];
                const auto unit = space_.gridAt(right.start).unit;
                const auto& shrinking = isBack ? left : right;
                const auto added = isBack ? right.start - std::min(right.start, unit) : left.end;
                const bool isOwn = std::ranges::any_of(pieces, [&](const ByteRange& piece) {
                    return piece.start <= added && added < piece.end;
                });
                if (shrinking.end - shrinking.start <= unit || right.start < unit || isOwn
                    || space_.isHeld(added, isContainer_))
                    break;
                left.end = isBack ? left.end - unit : left.end + unit;
                right.start = isBack ? right.start - unit : right.start + unit;
                auto open = pieces;
                open.back() = pieceFrom(open.back().start);
                const auto finding = follow(open);
                budget.take(finding.checked);
                if (!finding.isComplete())
                    break;
                others.push_back(solution);
                others.back().pieces = cutTo(std::move(open), *finding.length);
                others.back().proof = finding.proof;
            }
        }
    return others;
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

/// Whether the checker passes over what lies here, or waits for something far behind.
bool GapSearch::isBlind(const Cut& cut)
{
    constexpr std::uint64_t farBehind = 131'072;
    const auto checked = cut.checker->finding().checked;
    return checked > cut.position || checked + farBehind < cut.position;
}

std::optional<GapSearch::Survivor> GapSearch::tryUnit(
    const Assembly& assembly, const Cut& cut, std::uint64_t unit, Budget& budget) const
{
    auto pieces = joined(assembly, cut, unit);
    if (pieces.empty() || pieces[pieces.size() - 2].end == unit
        || (cut.checker->finding().isPacked && !looksCompressed(cache_.from(unit))))
        return std::nullopt;
    const auto size = space_.gridAt(unit).unit;
    PiecedBytes file(cache_, std::move(pieces), end_);
    const auto checker = cut.checker->copy();
    const auto before = cut.checker->finding();
    budget.take(costOfTrial);
    Survivor survivor { .cut = &cut, .unit = unit };
    // First a little of it, since nearly all break at once; then enough to tell a rough join.
    for (const auto most : { firstUnits * size, moreUnits * size }) {
        const auto step = most == firstUnits * size ? most : std::max(sampleStep, most / 32);
        while (file.size() < std::min(cut.position + most, file.sizeOfAll())) {
            const auto from = std::max(checker->finding().checked, cut.position);
            file.growTo(std::max(file.size(), cut.position) + step);
            checker->advance(file);
            const auto& finding = checker->finding();
            budget.take(breakOf(finding, finding.checked) - std::min(from, finding.checked));
            survivor.firm = finding.firm;
            survivor.brokenAt = finding.brokenAt;
            if (finding.isBroken()) // a short piece may end here
                return most == firstUnits * size ? std::nullopt : std::optional(survivor);
            survivor.strain = std::max(survivor.strain, strainOf(finding, before));
            if (finding.isComplete())
                return survivor;
        }
    }
    return survivor;
}

/// Follows those that are left to their ends, the smoothest first. What is rougher than a right
/// join may be is left out without a doubt. Whether one of them is certain.
bool GapSearch::followSurvivors(Batch batch, Budget& budget, Result& result) const
{
    const auto likeness
        = [](const Survivor& survivor) { return survivor.strain == 0 ? 1 : survivor.strain; };
    auto& survivors = batch.survivors;
    for (const auto& survivor : survivors)
        if (survivor.brokenAt)
            result.unfinished.push_back(unfinished(batch, survivor));
    std::erase_if(
        survivors, [](const Survivor& survivor) { return survivor.brokenAt.has_value(); });
    std::ranges::stable_sort(survivors, {}, likeness);
    if (survivors.size() > mostRoughSurvivors && survivors.back().strain > 0) {
        result.wasCutShort |= likeness(survivors[mostRoughSurvivors]) <= mostStrain;
        survivors.resize(mostRoughSurvivors);
    }
    bool isCertain = false;
    for (const auto& survivor : survivors) {
        result.wasCutShort |= budget.isSpent() || isCancelled(progress_);
        if (isCertain || budget.isSpent() || isCancelled(progress_))
            break;
        isCertain = followToEnd(batch, survivor, budget, result);
    }
    auto& open = result.unfinished;
    std::erase_if(open, [](const Assembly& next) { return next.pieces.empty(); });
    std::ranges::stable_sort(open, std::ranges::greater {}, &Assembly::promise);
    const bool isConfirmed = hasChecksums_ && !open.empty() && open.front().isConfirmed;
    if (isConfirmed)
        open.resize(1);
    if (open.size() > mostUnfinished) {
        open.resize(mostUnfinished);
        for (auto& next : open)
            next.isDoubtful = true;
    }
    return isCertain || isConfirmed;
}

/// A file that goes on with a unit and breaks again.
Assembly GapSearch::unfinished(const Batch& batch, const Survivor& survivor) const
{
    constexpr double closeUnits = 8; // in front of a contradiction: cuts as likely as the last
    constexpr double unknownStrain = 1.5;
    constexpr double certain = 1e6;
    const auto position = survivor.cut->position;
    const auto unit = static_cast<double>(space_.gridAt(survivor.unit).unit);
    const auto reached = survivor.brokenAt.value_or(position);
    const auto gained = static_cast<double>(reached - std::min(reached, position)) / unit;
    const auto before = static_cast<double>(batch.lastCut - position) / unit / closeUnits;
    const auto strain = std::max(batch.assembly->strain, survivor.strain);
    const auto weight = strain == 0 ? unknownStrain : std::max(strain, 1.0);
    const bool isConfirmed = survivor.firm > position;
    return { .pieces = joined(*batch.assembly, *survivor.cut, survivor.unit),
        .strain = strain,
        .isDoubtful = batch.assembly->isDoubtful,
        .promise
        = std::sqrt(gained) / (weight * weight) / (1 + before) + (isConfirmed ? certain : 0),
        .isConfirmed = isConfirmed };
}

/// Whether checksums prove the file that comes of it, so that nothing else needs to be tried.
bool GapSearch::followToEnd(
    const Batch& batch, const Survivor& survivor, Budget& budget, Result& result) const
{
    auto pieces = joined(*batch.assembly, *survivor.cut, survivor.unit);
    if (pieces.empty())
        return false;
    PiecedBytes file(cache_, pieces, end_);
    file.growToEnd();
    const auto checker = survivor.cut->checker->copy();
    checker->advance(file);
    const auto& finding = checker->finding();
    const auto reached = breakOf(finding, std::min(finding.checked, file.size()));
    budget.take(costOfTrial + reached - std::min(reached, survivor.cut->position));
    if (!finding.isComplete()) {
        auto broken = survivor;
        broken.brokenAt = reached;
        broken.firm = finding.firm;
        result.unfinished.push_back(unfinished(batch, broken));
        return false;
    }
    result.solutions.push_back({ .pieces = cutTo(std::move(pieces), *finding.length),
        .proof = finding.proof,
        .strain = std::max(batch.assembly->strain, survivor.strain),
        .isStrainKnown = finding.usualRoughness > 0,
        .isDoubtful = batch.assembly->isDoubtful });
    return finding.proof == Content::Proof::checksum;
}

} // namespace Fragments
