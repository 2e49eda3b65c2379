// Directories of an exFAT volume that no other one leads to, or what is left of them.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Walker.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <unordered_set>

namespace ExFATParser {

using namespace ExFATEntries;

namespace {

constexpr std::int64_t looked
    = 512 + maxFileSetSize; // a sector, and the rest of the set that begins at its end

/// A cluster with candidate sectors that nobody has claimed.
struct Fragment {
    std::uint32_t cluster = 0;
    bool leads = false;  ///< it names a folder
    bool isHead = false; ///< it begins in the middle of a set
};

class LostDirectories {
public:
    LostDirectories(ExFATDeepInfo& info, WorkProgress* progress)
        : info_(info)
        , heap_(info.context->geometry().heap)
        , source_(info.context->source())
        , progress_(progress)
        , walker_(*info.context, progress)
    {
    }

    std::unique_ptr<FileNode> find(std::vector<std::uint64_t> sectors, LostRoot* root)
    {
        std::ranges::sort(sectors);
        for (const auto offset : sectors)
            if (!isCancelled(progress_))
                survey(offset);
        if (fragments_.empty())
            return nullptr;

        auto folder = FileNode::makeFolder("$Tabte mappefragmenter", EntryStatus::orphaned);
        walker_.claimed = std::move(info_.claimed);
        walker_.liveClusters = std::move(info_.liveClusters);
        if (root != nullptr) {
            walker_.walkFragment(root->cluster, root->folder, true);
            root->label = walker_.label().value_or("");
        }
        // Folders that others name get their place and name from these, and bring what goes on
        // elsewhere. The rest has no folder above it, or goes in circles.
        for (const int pass : { 0, 1, 2 })
            for (const auto& fragment : fragments_) {
                const bool isNamed = named_.contains(fragment.cluster);
                const bool isTurn = pass == 2
                    || (!isNamed && (pass == 1 || (fragment.leads && !fragment.isHead)));
                if (isTurn && !isCancelled(progress_)
                    && !walker_.claimed.contains(fragment.cluster))
                    walker_.walkFragment(fragment.cluster, *folder);
            }
        info_.claimed = std::move(walker_.claimed);
        info_.liveClusters = std::move(walker_.liveClusters);
        if (folder->children().empty())
            return nullptr;
        folder->sortChildren();
        return folder;
    }

private:
    void survey(std::uint64_t offset)
    {
        if (offset < heap_.offset || (offset - heap_.offset) / heap_.clusterSize >= heap_.count)
            return;
        const auto cluster = heap_.clusterAt(offset);
        if (info_.claimed.contains(cluster) || info_.liveClusters.contains(cluster))
            return;
        const bool isNew = fragments_.empty() || fragments_.back().cluster != cluster;
        if (isNew)
            fragments_.push_back({ .cluster = cluster });
        auto& fragment = fragments_.back();
        const auto bytes = source_.read(offset, looked, ReadMode::thorough);
        if (offset == heap_.offsetOf(cluster) && (bytes[0] & secondary) != 0) {
            fragment.isHead = true;
            walker_.heads.insert(cluster);
        }
        bool isFirst = isNew;
        for (const auto& set : soundSets(bytes, 0)) {
            if (set.file->isDirectory() && heap_.contains(set.stream.firstCluster)) {
                fragment.leads = true;
                named_.insert(set.stream.firstCluster);
            }
            if (isFirst && !set.isDeleted && set.stream.firstCluster != 0) {
                walker_.looseEnds.byFirstContent.emplace(set.stream.firstCluster, cluster);
                isFirst = false;
            }
        }
    }

    ExFATDeepInfo& info_;
    const ClusterHeap& heap_;
    DiskSource& source_;
    WorkProgress* progress_;
    ExFATWalker walker_;
    std::vector<Fragment> fragments_;         // ascending
    std::unordered_set<std::uint32_t> named_; // where the fragments' sets have folders
};

} // namespace

std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress)
{
    auto* info = dynamic_cast<ExFATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->isRebuilt)
        return nullptr;
    return lostEntries(*info, sectors, progress, nullptr);
}

std::unique_ptr<FileNode> lostEntries(ExFATDeepInfo& info, std::span<const std::uint64_t> sectors,
    WorkProgress* progress, LostRoot* root)
{
    return LostDirectories(info, progress).find({ sectors.begin(), sectors.end() }, root);
}

} // namespace ExFATParser
