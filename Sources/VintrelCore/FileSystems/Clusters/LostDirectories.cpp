#include "VintrelCore/FileSystems/Clusters/LostDirectories.h"

#include <algorithm>
#include <utility>

std::unique_ptr<FileNode> LostDirectories::find(
    std::vector<std::uint64_t> sectors, ClusterClaims& claims, LostRoot* root)
{
    std::ranges::sort(sectors);
    surveyAll(sectors, claims);
    std::erase_if(fragments_, [](const Fragment& fragment) { return fragment.isForeign; });
    if (fragments_.empty() && root == nullptr && claims.rests.empty()
        && claims.openDirectories.empty() && claims.misplaced.empty())
        return nullptr;

    auto folder = FileNode::makeFolder("$Tabte mappefragmenter", EntryStatus::orphaned);
    walker_.continueFrom(std::move(claims));
    if (root != nullptr) {
        walkRoot(*root);
        root->label = walker_.label().value_or("");
    }
    walkRests(*folder);
    walkDeleted();
    // Folders that others name get their place and name from these, so those that nobody names come
    // first: above all the ones that are surely no part of another directory. What may be part of
    // one waits until its directory has had the chance to continue there. What is left at the end
    // has no folder above it, or is part of a ring.
    const auto isTop = [&](const Fragment& fragment) {
        return !named_.contains(fragment.cluster)
            && (fragment.isBeginning || !fragment.isContinuation);
    };
    walkFragments(*folder, [&](const Fragment& fragment) {
        return isTop(fragment) && (fragment.isBeginning || fragment.namesFolder);
    });
    walkFragments(*folder, isTop);
    walkFragments(*folder, [](const Fragment&) { return true; });
    walkRests(*folder);
    claims = std::move(walker_.claims);
    if (folder->children().empty())
        return nullptr;
    folder->sortChildren();
    return folder;
}

/// What lies behind a break belongs to the directory. What lies behind a true end may be older than
/// the directory.
void LostDirectories::walkRests(FileNode& lostFolder)
{
    const auto statusOfOthers = walker_.lostStatus;
    while (!walker_.claims.rests.empty() && !isCancelled(progress_)) {
        for (const auto& rest : std::exchange(walker_.claims.rests, {})) {
            walker_.lostStatus = rest.isBroken ? EntryStatus::orphaned : statusOfOthers;
            walker_.walkRest(rest, rest.isBroken ? *rest.folder : lostFolder);
            rest.folder->sortChildren();
        }
    }
    walker_.lostStatus = statusOfOthers;
}

/// What is found of deleted directories leads to others of which parts are missing. None is read
/// twice, so that this ends.
void LostDirectories::walkDeleted()
{
    auto& claims = walker_.claims;
    while (
        !isCancelled(progress_) && !(claims.misplaced.empty() && claims.openDirectories.empty())) {
        walkMisplaced();
        claims.misplaced.clear();
        for (const auto& directory : std::exchange(claims.openDirectories, {}))
            walker_.walkOn(directory);
    }
}

void LostDirectories::walkRoot(LostRoot& root)
{
    walker_.walkFragment(heap_.clusterAt(root.offset), root.folder, true);
}

void LostDirectories::surveyAll(std::span<const std::uint64_t> sectors, const ClusterClaims& claims)
{
    for (const auto sector : sectors) {
        if (isCancelled(progress_))
            return;
        if (!heap_.holds(sector))
            continue;
        const auto cluster = heap_.clusterAt(sector);
        if (claims.contains(cluster))
            continue;
        const bool isFirst = fragments_.empty() || fragments_.back().cluster != cluster;
        if (isFirst)
            fragments_.push_back({ .cluster = cluster });
        survey(fragments_.back(), sector, isFirst);
    }
}

/// Walks those fragments whose turn it is and that no directory has claimed.
template <class IsTurn> void LostDirectories::walkFragments(FileNode& folder, IsTurn isTurn)
{
    for (const auto& fragment : fragments_)
        if (isTurn(fragment) && !isCancelled(progress_)
            && !walker_.claims.contains(fragment.cluster))
            walker_.walkFragment(fragment.cluster, folder);
}
