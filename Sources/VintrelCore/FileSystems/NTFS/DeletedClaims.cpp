#include "VintrelCore/FileSystems/NTFS/DeletedClaims.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <compare>

namespace {

/// Claims of one cluster that are compared with each other. No disk gives a cluster to so many
/// files whose records are all left.
constexpr std::size_t maxOverlapping = 64;

/// No volume has more clusters.
constexpr std::uint64_t maxCluster = std::uint64_t { 1 } << 62;

/// Which record was written last; unordered where that cannot be told. Systems that keep no log
/// leave its sequence number as it is, so that the number alone proves nothing against the dates.
std::partial_ordering compareWrites(LastWrite one, LastWrite other)
{
    const std::partial_ordering byLog = one.logSequence <=> other.logSequence;
    const std::partial_ordering byDate = one.changed != 0 && other.changed != 0
        ? one.changed <=> other.changed
        : std::strong_ordering::equal;
    if (byLog == byDate)
        return std::is_eq(byLog) ? std::partial_ordering::unordered : byLog;
    if (std::is_eq(byLog) || std::is_eq(byDate))
        return std::is_eq(byLog) ? byDate : byLog;
    return std::partial_ordering::unordered;
}

} // namespace

void NTFSDeletedClaims::add(
    File file, const FileData& data, const NTFSGeometry& geometry, LastWrite lastWrite)
{
    if (const auto* extents = extentsOf(data)) {
        for (const auto& extent : *extents)
            if (extent.offset && *extent.offset >= geometry.base)
                add(file, lastWrite, (*extent.offset - geometry.base) / geometry.clusterSize,
                    unitsFor(extent.length, geometry.clusterSize));
    } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn && *run.lcn < maxCluster)
                add(file, lastWrite, *run.lcn, run.clusters);
    }
}

void NTFSDeletedClaims::add(
    File file, LastWrite lastWrite, std::uint64_t first, std::uint64_t count)
{
    const bool isBeginning = claims_.empty() || claims_.back().file != file;
    claims_.push_back({ .first = first,
        .end = first + count,
        .file = file,
        .lastWrite = lastWrite,
        .isBeginning = isBeginning });
}

std::vector<Doubts> NTFSDeletedClaims::judge()
{
    if (!claims_.empty())
        doubts_.resize(std::ranges::max(claims_, {}, &Claim::file).file + 1);
    std::ranges::sort(claims_, {}, &Claim::first);
    std::vector<Claim> open; // those that reach to where the sweep has come
    for (const auto& claim : claims_) {
        std::erase_if(open, [&](const Claim& other) { return other.end <= claim.first; });
        for (const auto& other : open)
            if (other.file != claim.file)
                compare(other, claim);
        // A file that names a cluster again and again takes nothing from others by that.
        if (!claim.isBeginning && std::ranges::any_of(open, [&](const Claim& other) {
                return other.file == claim.file && other.end >= claim.end;
            }))
            continue;
        if (open.size() < maxOverlapping) {
            open.push_back(claim);
            continue;
        }
        doubts_[claim.file].add(Doubt::contestedByDeleted);
        for (const auto& other : open)
            doubts_[other.file].add(Doubt::contestedByDeleted);
    }
    claims_.clear();
    for (auto& doubts : doubts_)
        if (doubts.has(Doubt::reusedFirstByDeleted)) // says enough
            doubts = Doubt::reusedFirstByDeleted;
    return std::move(doubts_);
}

void NTFSDeletedClaims::compare(const Claim& earlier, const Claim& later)
{
    const auto order = compareWrites(earlier.lastWrite, later.lastWrite);
    if (std::is_lt(order)) {
        lose(earlier, later);
    } else if (std::is_gt(order)) {
        lose(later, earlier);
    } else {
        doubts_[earlier.file].add(Doubt::contestedByDeleted);
        doubts_[later.file].add(Doubt::contestedByDeleted);
    }
}

void NTFSDeletedClaims::lose(const Claim& loser, const Claim& winner)
{
    const bool isFirstLost
        = loser.isBeginning && winner.first <= loser.first && loser.first < winner.end;
    doubts_[loser.file].add(
        isFirstLost ? Doubt::reusedFirstByDeleted : Doubt::partlyReusedByDeleted);
}
