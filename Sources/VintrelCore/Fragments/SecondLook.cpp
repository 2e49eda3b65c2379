#include "VintrelCore/Fragments/SecondLook.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

namespace Fragments {

namespace {

constexpr std::uint64_t budgetOfTwo = 268'435'456;   ///< a head's, in bytes looked at
constexpr std::uint64_t leastBudget = 1'073'741'824; ///< of all heads, or a quarter of the source
constexpr std::size_t mostPieces = 4;
constexpr std::size_t mostAssemblies = 4;

} // namespace

SecondLook::SecondLook(DiskSource& source, Space space, const WorkProgress* progress)
    : source_(source)
    , space_(std::move(space))
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
    for (std::size_t pieces = 2; pieces <= mostPieces; ++pieces)
        searchAll(pieces);
    settleDoubtful();

    // What a proved file holds inside itself is no file of its own.
    RangeSet held;
    for (const auto& file : solved_)
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
    const std::vector pieces { search.pieceFrom(find.offset) };
    const auto finding = search.follow(pieces);
    if (!finding.isComplete()) {
        job.assemblies.push_back({ .pieces = pieces });
        jobs_.push_back(std::move(job));
        return;
    }
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
    const std::vector pieces { search.pieceFrom(head.offset) };
    const auto finding = search.follow(pieces);
    if (finding.checked < leastFirm || finding.isComplete())
        return;
    job.assemblies.push_back({ .pieces = pieces });
    jobs_.push_back(std::move(job));
}

/// Each file with so many pieces.
void SecondLook::searchAll(std::size_t pieces)
{
    std::size_t count = 0;
    for (auto& job : jobs_) {
        ++count;
        if (job.isSolved)
            continue;
        if (all_.isSpent() || isCancelled(progress_))
            return;
        report(progress_, static_cast<double>(count) / static_cast<double>(jobs_.size()),
            "Samler filer i stykker … (" + std::to_string(count) + " af "
                + std::to_string(jobs_.size()) + ")");
        search(job, pieces);
        settleIfProved(job);
    }
    // What one of them has is not in question for the others any more.
    for (bool isProgress = true; isProgress;) {
        isProgress = false;
        for (auto& job : jobs_)
            isProgress |= !job.isSolved && settleIfProved(job);
    }
}

void SecondLook::search(Job& job, std::size_t pieces)
{
    if (space_.isHeld(job.offset, holdsOthers(job.extension))) {
        job.isSolved = true; // it lies inside another
        return;
    }
    const auto share = std::min(all_.left, pieces == 2 ? budgetOfTwo : 2 * budgetOfTwo);
    Budget budget { share };
    std::vector<Assembly> next;
    const auto search = gapSearch(job);
    for (auto& assembly : job.assemblies) {
        // Others may have been found since to own what the last piece ran into.
        auto& last = assembly.pieces.back();
        last.end = std::min(last.end, search.pieceFrom(last.start).end);
        take(job, search.search(assembly, budget), next);
    }
    all_.take(share - budget.left);
    std::ranges::stable_sort(next, std::ranges::greater {}, &Assembly::promise);
    if (next.size() > mostAssemblies) {
        next.resize(mostAssemblies);
        for (auto& assembly : next)
            assembly.isDoubtful = true;
    }
    job.assemblies = std::move(next);
}

/// Whether the file's pieces are certain by now.
bool SecondLook::settleIfProved(Job& job)
{
    const bool isContainer = holdsOthers(job.extension);
    std::erase_if(job.solutions, [&](const Solution& solution) {
        return std::ranges::any_of(solution.pieces, [&](const ByteRange& piece) {
            return space_.isHeld(piece.start, isContainer)
                || space_.endOfRun(piece.start, space_.gridAt(piece.start), isContainer)
                < piece.end;
        });
    });
    const auto* const proved = provedOf(job);
    if (proved == nullptr)
        return false;
    settle(job, *proved, Joins::proved);
    return true;
}

void SecondLook::take(Job& job, GapSearch::Result result, std::vector<Assembly>& next) const
{
    job.wasCutShort |= result.wasCutShort;
    std::ranges::move(result.solutions, std::back_inserter(job.solutions));
    std::ranges::move(result.unfinished, std::back_inserter(next));
}

/// The solution that no other one can be put beside.
const Solution* SecondLook::provedOf(const Job& job) const
{
    const auto checked
        = std::ranges::find(job.solutions, Content::Proof::checksum, &Solution::proof);
    if (checked != job.solutions.end())
        return &*checked;
    if (job.solutions.size() != 1 || job.wasCutShort)
        return nullptr;
    const auto& only = job.solutions.front();
    const bool isProved
        = only.proof == Content::Proof::decoded && only.strain <= mostStrain && !only.isDoubtful;
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
    file.pieces = solution.pieces;
    file.joins = joins;
    if (joins == Joins::proved)
        for (const auto& piece : solution.pieces)
            space_.hold(piece);
    if (job.find != nullptr)
        *job.find = std::move(file);
    else
        solved_.push_back(std::move(file));
}

/// What is left over: the smoothest of the solutions, where no find has the same head.
void SecondLook::settleDoubtful()
{
    for (auto& job : jobs_) {
        if (job.isSolved || job.find != nullptr || job.solutions.empty())
            continue;
        // Where nothing tells how smooth the joins are, the longest file leaves the least out.
        const auto best = std::ranges::min_element(
            job.solutions, [](const Solution& left, const Solution& right) {
                return left.strain != right.strain ? left.strain < right.strain
                                                   : sizeOf(left.pieces) > sizeOf(right.pieces);
            });
        const bool isChained = best->proof == Content::Proof::chain && job.solutions.size() == 1
            && !best->isDoubtful && !job.wasCutShort;
        settle(job, *best, isChained ? Joins::chained : Joins::uncertain);
    }
}

} // namespace Fragments
