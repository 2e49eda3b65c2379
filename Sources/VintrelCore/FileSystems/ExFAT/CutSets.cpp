#include "VintrelCore/FileSystems/ExFAT/CutSets.h"

#include <algorithm>
#include <utility>
#include <vector>

using namespace ExFATEntries;

namespace {

/// So many rests are tried against a set that breaks off.
constexpr int maxRestsTried = 1'024;

/// So many of those that break off are asked whether a rest fits them too.
constexpr std::size_t maxHeads = 4'096;

/// A set that two clusters hold together.
struct SetJoin {
    EntrySet set;
    std::optional<std::uint32_t> nextContent; ///< where the content of the set behind it begins

    /// None where the entries at the beginning of a cluster do not make a set sound that has begun
    /// elsewhere.
    static std::optional<SetJoin> from(SetCollector begun, ByteView rest);

    /// Whether the contents follow each other, as those of files do that were written in a row.
    bool isFollowedBy(const ClusterHeap& heap) const
    {
        return nextContent && *nextContent != 0
            && *nextContent == set.stream.firstCluster + heap.clustersFor(set.stream.size);
    }
};

std::optional<SetJoin> SetJoin::from(SetCollector begun, ByteView rest)
{
    std::optional<SetJoin> join;
    for (std::int64_t at = 0; const auto entry = rest.load<RawEntry>(at); at += entrySize) {
        const auto set = begun.take(*entry);
        if (join && set) {
            if (set->isSound)
                join->nextContent = set->stream.firstCluster;
            return join;
        }
        if (set && !set->isSound)
            return std::nullopt;
        if (set)
            join = SetJoin { .set = *set, .nextContent = std::nullopt };
        else if (!begun.isInside())
            return join;
    }
    return join;
}

} // namespace

void CutSets::addHead(std::uint32_t cluster, ByteView tail)
{
    SetCollector collector;
    for (std::int64_t at = 0; const auto entry = tail.load<RawEntry>(at); at += entrySize)
        collector.take(*entry);
    if (collector.isInside() && heads_.size() < maxHeads)
        heads_.emplace(cluster, std::move(collector));
}

std::optional<std::uint32_t> CutSets::takeRest(
    const SetCollector& begun, std::uint32_t cluster, const ClusterClaims& claims)
{
    std::erase_if(rests_, [&](const auto& rest) { return claims.contains(rest.first); });
    const auto rest = onlyRest(begun, cluster);
    if (rest) {
        rests_.erase(*rest);
        heads_.erase(cluster);
    }
    return rest;
}

std::optional<std::uint32_t> CutSets::onlyRest(
    const SetCollector& begun, std::uint32_t cluster) const
{
    std::vector<std::uint32_t> fitting;
    std::vector<std::uint32_t> continuing;
    int tried = 0;
    for (const auto& [next, bytes] : rests_) {
        if (++tried > maxRestsTried)
            break;
        const auto joined = SetJoin::from(begun, bytes);
        if (!joined)
            continue;
        fitting.push_back(next);
        if (next == cluster + 1 || joined->isFollowedBy(heap_))
            continuing.push_back(next);
    }
    if (fitting.size() == 1 && !hasOtherHead(cluster, rests_.at(fitting.front())))
        return fitting.front();
    return continuing.size() == 1 ? std::optional(continuing.front()) : std::nullopt;
}

/// Whether the rest fits a set that the end of another cluster cuts.
bool CutSets::hasOtherHead(std::uint32_t cluster, ByteView rest) const
{
    return std::ranges::any_of(heads_, [&](const auto& head) {
        return head.first != cluster && SetJoin::from(head.second, rest);
    });
}
