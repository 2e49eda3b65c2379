#include "VintrelCore/Model/DeletedClaims.h"

#include "VintrelCore/Foundation/RangeSet.h"

#include <algorithm>

void DeletedClaims::forEachDoubted(const std::function<void(FileNode&, Doubts)>& tell)
{
    std::ranges::stable_sort(claims_, std::ranges::greater {}, &Claim::time);
    DoubtsByFile found;
    RangeSet later;
    RangeSet laterUnshared;
    for (auto first = claims_.begin(); first != claims_.end();) {
        const auto isOlder = [&](const Claim& claim) { return claim.time < first->time; };
        const auto last = std::find_if(first, claims_.end(), isOlder);
        const std::span sameTime(first, last);
        for (const auto& [file, range, time, isStart, isShared] : sameTime) {
            const auto& taken = isShared ? laterUnshared : later;
            if (file == nullptr || !taken.intersects(range.start, range.end))
                continue;
            found[file].add(isStart && taken.contains(range.start) ? Doubt::reusedFirstByDeleted
                                                                   : Doubt::partlyReusedByDeleted);
        }
        for (const auto& claim : sameTime) {
            later.add(claim.range.start, claim.range.end);
            if (!claim.isShared)
                laterUnshared.add(claim.range.start, claim.range.end);
        }
        if (sameTime_ == SameTime::undecided)
            findUndecided(sameTime, found);
        first = last;
    }
    for (const auto& [file, doubts] : found)
        tell(*file,
            doubts.has(Doubt::reusedFirstByDeleted) ? Doubts(Doubt::reusedFirstByDeleted) : doubts);
}

/// A claim that overlaps others overlaps the one of those before it that reaches farthest.
void DeletedClaims::findUndecided(std::span<Claim> sameTime, DoubtsByFile& found)
{
    std::ranges::stable_sort(sameTime, {}, [](const Claim& claim) { return claim.range.start; });
    const Claim* farthest = nullptr;
    for (const auto& claim : sameTime) {
        if (farthest != nullptr && claim.range.start < farthest->range.end
            && claim.file != farthest->file) {
            for (auto* file : { claim.file, farthest->file })
                if (file != nullptr)
                    found[file].add(Doubt::contestedByDeleted);
        }
        if (farthest == nullptr || claim.range.end > farthest->range.end)
            farthest = &claim;
    }
}

void DeletedClaims::forgetFiles()
{
    for (auto& claim : claims_)
        claim.file = nullptr;
}
