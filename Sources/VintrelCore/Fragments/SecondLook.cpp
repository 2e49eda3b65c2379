#include "VintrelCore/Fragments/SecondLook.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Fragments/Remnants.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

namespace Fragments {

namespace {

constexpr std::uint64_t budgetOfTwo = 268'435'456;   ///< a head's, in bytes looked at
constexpr std::uint64_t leastBudget = 4'294'967'296; ///< of all heads, or a quarter of the source
constexpr std::uint64_t firstShare = 16;
constexpr std::size_t mostAssemblies = 4;

} // namespace

SecondLook::SecondLook(DiskSource& source, Space space, const WorkProgress* progress)
    : space_(std::move(space))
    , progress_(progress)
    , cache_(source)
    , all_ { std::max(leastBudget, source.size() / 4) }
{
}

void SecondLook::run(std::vector<CarvedFile>& finds, std::span<const BrokenHead> heads)
{
    for (const auto& find : finds)
        beginnings_.insert(find.offset);
    for (const auto& head : heads)
        beginnings_.insert(head.offset);
    for (auto& find : finds)
        checkFind(find);
    for (const auto& head : heads)
        checkHead(head);
    findAnchors();
    // First with a small share of the work each, so that none that hardly contradicts itself takes
    // it from all others.
    for (const bool isLast : { false, true })
        for (std::size_t pieces = 2; pieces <= (isLast ? mostPieces : mostPieces - 1); ++pieces) {
            const auto whole = pieces == 2 ? budgetOfTwo : 2 * budgetOfTwo;
            searchAll(pieces, isLast ? whole : whole / firstShare, isLast);
        }
    settleDoubtful();
    addRemnants(finds);

    // What a proved file holds inside itself is no file of its own.
    RangeSet held;
    for (const auto* list : { &std::as_const(solved_), &std::as_const(finds) })
        for (const auto& file : *list)
            if (file.joins == Joins::proved && holdsOthers(file.ext))
                for (const auto& [start, end] : file.pieces)
                    held.add(start, end);
    std::erase_if(finds, [&](const CarvedFile& find) {
        return find.pieces.empty() && !holdsOthers(find.ext) && held.contains(find.offset);
    });
    std::ranges::move(solved_, std::back_inserter(finds));
    std::ranges::stable_sort(finds, {}, &CarvedFile::offset);
}

/// A find whose content is whole owns its space; one whose content is not may go on elsewhere.
void SecondLook::checkFind(CarvedFile& find)
{
    if (isCancelled(progress_) || space_.isHeld(find.offset, true))
        return;
    Job job;
    job.offset = find.offset;
    job.extension = find.ext;
    job.find = &find;
    if (!Content::checkerFor(find.ext)) {
        if (find.isProved)
            space_.hold({ find.offset, find.offset + find.size });
        return;
    }
    const auto search = gapSearch(job);
    Assembly assembly;
    assembly.pieces = { search.pieceFrom(find.offset) };
    const auto finding = search.follow(assembly.pieces);
    if (!finding.isComplete()) {
        find.isContradicted = find.exact && finding.isBroken();
        job.levels[1].assemblies.push_back(std::move(assembly));
        jobs_.push_back(std::move(job));
        return;
    }
    // Sound that refers to what came before it, and whose length nothing confirms, is the rest of a
    // file whose first part lies elsewhere.
    find.isContradicted = finding.lacksBeginning && finding.proof == Content::Proof::none;
    const ByteRange whole { find.offset, find.offset + std::max(find.size, *finding.length) };
    if (holdsOthers(find.ext))
        space_.hold(whole);
    else
        space_.holdSoftly(whole);
}

void SecondLook::checkHead(const BrokenHead& head)
{
    constexpr std::uint64_t leastFirm = 16; // a mark alone is no head
    Job job;
    job.offset = head.offset;
    job.extension = head.extension;
    if (isCancelled(progress_) || !Content::checkerFor(job.extension)
        || space_.isHeld(head.offset, holdsOthers(job.extension)))
        return;
    const auto search = gapSearch(job);
    Assembly assembly;
    assembly.pieces = { search.pieceFrom(head.offset) };
    const auto finding = search.follow(assembly.pieces);
    const bool isWhole = finding.isComplete() && finding.proof != Content::Proof::none;
    if (finding.checked < leastFirm || isWhole)
        return;
    job.levels[1].assemblies.push_back(std::move(assembly));
    jobs_.push_back(std::move(job));
}

/// Looks for what tells where the ends of files lie, if one that is broken may have it.
void SecondLook::findAnchors()
{
    std::vector<std::string_view> extensions;
    for (const auto& job : jobs_)
        extensions.push_back(job.extension);
    std::ranges::sort(extensions);
    extensions.erase(std::unique(extensions.begin(), extensions.end()), extensions.end());
    anchors_ = Fragments::findAnchors(cache_, space_, extensions, progress_);
    for (auto& job : jobs_)
        job.end = endFor(job.extension, job.levels[1].assemblies.front().pieces, anchors_, cache_);
}

/// Each file with so many pieces.
void SecondLook::searchAll(std::size_t pieces, std::uint64_t share, bool isLast)
{
    std::size_t count = 0;
    for (auto& job : jobs_) {
        ++count;
        if (job.isSolved || job.levels[pieces].isDone)
            continue;
        if (all_.isSpent() || isCancelled(progress_))
            return;
        report(progress_, static_cast<double>(count) / static_cast<double>(jobs_.size()),
            "Samler filer i stykker … (" + std::to_string(count) + " af "
                + std::to_string(jobs_.size()) + ")");
        search(job, pieces, share, isLast);
        settleIfProved(job);
    }
    // What one of them has is not in question for the others any more.
    for (bool isProgress = true; isProgress;) {
        isProgress = false;
        for (auto& job : jobs_)
            isProgress |= !job.isSolved && settleIfProved(job);
    }
}

/// Whether an anchor gave pieces that the content does not contradict.
bool SecondLook::searchMapped(Job& job, std::size_t pieces)
{
    const auto search = gapSearch(job);
    auto& found = job.levels[pieces].solutions;
    for (const auto& assembly : job.levels[pieces - 1].assemblies)
        for (const auto shift : shiftsFor(job.extension, assembly.pieces, anchors_, cache_)) {
            const auto share = std::min(all_.left, budgetOfTwo);
            Budget budget { share };
            auto result = search.searchMapped(assembly, shift, budget);
            all_.take(share - budget.left);
            std::ranges::move(result.solutions, std::back_inserter(found));
        }
    return !found.empty();
}

void SecondLook::search(Job& job, std::size_t pieces, std::uint64_t share, bool isLast)
{
    if (space_.isHeld(job.offset, holdsOthers(job.extension))) {
        job.isSolved = true; // it lies inside another
        return;
    }
    auto& level = job.levels[pieces];
    level = {};
    if (searchMapped(job, pieces)) {
        level.isDone = true;
        return;
    }
    share = std::min(all_.left, share);
    Budget budget { share };
    auto& next = level.assemblies;
    const auto search = gapSearch(job);
    for (auto& assembly : job.levels[pieces - 1].assemblies) {
        // Others may have been found since to own what the last piece ran into.
        auto& last = assembly.pieces.back();
        last.end = std::min(last.end, search.pieceFrom(last.start).end);
        auto result = search.search(assembly, budget);
        level.wasCutShort |= result.wasCutShort;
        std::ranges::move(result.solutions, std::back_inserter(level.solutions));
        std::ranges::move(result.unfinished, std::back_inserter(next));
    }
    all_.take(share - budget.left);
    addSlid(job, level);
    std::ranges::stable_sort(next, std::ranges::greater {}, &Assembly::promise);
    if (next.size() > mostAssemblies) {
        next.resize(mostAssemblies);
        for (auto& assembly : next)
            assembly.isDoubtful = true;
    }
    level.isDone = isLast || !level.wasCutShort;
    if (isLast && pieces < mostPieces)
        job.levels[pieces + 1].isDone = false;
}

/// Adds what differs from a solution only in where the pieces meet.
void SecondLook::addSlid(const Job& job, Level& level)
{
    constexpr std::size_t mostSolutions = 8; // more are far from certain anyhow
    if (level.solutions.size() > mostSolutions)
        return;
    std::vector<Solution> others;
    for (const auto& solution : level.solutions) {
        if (solution.proof == Content::Proof::checksum || solution.pieces.size() < 3)
            continue;
        const auto share = std::min(all_.left, budgetOfTwo);
        Budget budget { share };
        std::ranges::move(gapSearch(job).slid(solution, budget), std::back_inserter(others));
        all_.take(share - budget.left);
    }
    std::ranges::move(others, std::back_inserter(level.solutions));
}

/// Whether the file's pieces are certain by now.
bool SecondLook::settleIfProved(Job& job)
{
    const bool isContainer = holdsOthers(job.extension);
    const auto isTaken = [&](const ByteRange& piece) {
        return space_.isHeld(piece.start, isContainer)
            || space_.endOfRun(piece.start, space_.gridAt(piece.start), isContainer) < piece.end;
    };
    for (auto& level : job.levels)
        std::erase_if(level.solutions, [&](const Solution& solution) {
            return std::ranges::any_of(solution.pieces, isTaken);
        });
    const auto* const proved = provedOf(job);
    if (proved == nullptr)
        return false;
    settle(job, Solution(*proved), Joins::proved);
    return true;
}

std::vector<const Solution*> SecondLook::solutionsOf(const Job& job)
{
    std::vector<const Solution*> solutions;
    for (const auto& level : job.levels)
        for (const auto& solution : level.solutions)
            if (std::ranges::none_of(solutions,
                    [&](const Solution* other) { return other->pieces == solution.pieces; }))
                solutions.push_back(&solution);
    return solutions;
}

/// The solution that no other one can be put beside.
const Solution* SecondLook::provedOf(const Job& job)
{
    const auto solutions = solutionsOf(job);
    const auto checked = std::ranges::find(solutions, Content::Proof::checksum, &Solution::proof);
    if (checked != solutions.end())
        return *checked;
    const bool wasCutShort = std::ranges::any_of(job.levels, &Level::wasCutShort);
    if (solutions.size() != 1 || wasCutShort)
        return nullptr;
    const auto& only = *solutions.front();
    const bool isSmooth = !only.isStrainKnown || (only.strain > 0 && only.strain <= mostStrain);
    const bool isProved = only.proof == Content::Proof::decoded && isSmooth && !only.isDoubtful;
    return isProved ? &only : nullptr;
}

void SecondLook::settle(Job& job, const Solution& solution, Joins joins)
{
    job.isSolved = true;
    CarvedFile file;
    if (job.find != nullptr)
        file = *job.find;
    file.offset = job.offset;
    file.ext = job.find != nullptr ? job.find->ext : job.extension;
    file.size = sizeOf(solution.pieces);
    file.exact = true;
    file.isProved = joins == Joins::proved;
    file.isCut = false;
    file.isInterrupted = false;
    file.isOpenEnded = false;
    file.isContradicted = false;
    file.pieces = solution.pieces;
    file.joins = joins;
    if (joins == Joins::proved)
        for (const auto& piece : solution.pieces)
            space_.hold(piece);
    // What is not proved stands beside the find that it may correct.
    if (job.find != nullptr && joins == Joins::proved)
        *job.find = std::move(file);
    else
        solved_.push_back(std::move(file));
}

/// What is left over: the smoothest of the solutions, or the one whose joins are the likeliest.
void SecondLook::settleDoubtful()
{
    Seams seams(cache_, space_, beginnings_);
    // The clearest first: what they have is not in question for the others.
    constexpr int mostRounds = 8;
    for (const double lead : { 2.0, 1.0, 0.25, 0.0 }) {
        bool isProgress = true;
        for (int round = 0; isProgress && round < mostRounds; ++round) {
            isProgress = false;
            for (auto& job : jobs_)
                isProgress |= !job.isSolved && settleLikeliest(job, seams, lead);
        }
    }
}

/// Settles a file of which one solution is so much likelier than all others; false for another.
bool SecondLook::settleLikeliest(Job& job, Seams& seams, double lead)
{
    struct Rated {
        const Solution* solution;
        bool isTaken;
        double likelihood;
    };
    const auto solutions = solutionsOf(job);
    std::vector<Rated> rated;
    rated.reserve(solutions.size());
    for (const auto* solution : solutions)
        rated.push_back(
            { solution, seams.isTaken(solution->pieces), seams.likelihood(solution->pieces) });
    // Where nothing tells how smooth the joins are, the longest file leaves the least out.
    const auto rank = [](const Rated& one) {
        return std::tuple(one.isTaken, one.solution->strain, ~sizeOf(one.solution->pieces));
    };
    std::ranges::stable_sort(rated, [&](const Rated& left, const Rated& right) {
        return rank(left) != rank(right) ? rank(left) < rank(right)
                                         : left.likelihood > right.likelihood;
    });
    if (rated.empty())
        return false;
    const bool isClear = rated.size() == 1 || rank(rated[0]) != rank(rated[1])
        || rated[0].likelihood - rated[1].likelihood >= lead;
    if (!isClear)
        return false;
    const auto best = *rated.front().solution;
    const bool wasCutShort = std::ranges::any_of(job.levels, &Level::wasCutShort);
    const bool isChained = best.proof == Content::Proof::chain && solutions.size() == 1
        && !best.isDoubtful && !wasCutShort;
    seams.take(best.pieces);
    settle(job, best, isChained ? Joins::chained : Joins::uncertain);
    return true;
}

/// Shows of what is lost as much as there is, where no find has the same head.
void SecondLook::addRemnants(std::span<const CarvedFile> finds)
{
    std::set<std::uint64_t> beginnings;
    for (const auto& find : finds)
        beginnings.insert(find.offset);
    for (const auto& job : jobs_)
        beginnings.insert(job.offset);
    for (const auto& job : jobs_) {
        if (job.isSolved || isCancelled(progress_) || all_.isSpent()
            || space_.isHeld(job.offset, holdsOthers(job.extension)))
            continue;
        auto piece = gapSearch(job).pieceFrom(job.offset);
        if (const auto next = beginnings.upper_bound(job.offset); next != beginnings.end())
            piece.end = std::min(piece.end, *next);
        all_.take(piece.end - piece.start);
        if (job.find == nullptr)
            std::ranges::move(
                remnantsOf(job.extension, piece, cache_), std::back_inserter(solved_));
        if (job.extension == "jpg")
            std::ranges::move(thumbnailsOf(piece, cache_), std::back_inserter(solved_));
    }
}

} // namespace Fragments
