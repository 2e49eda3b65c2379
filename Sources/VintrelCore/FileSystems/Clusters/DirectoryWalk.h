#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_set>
#include <vector>

/// The bounds of a walk over the directories of a FAT or exFAT volume, which are the same for both:
/// no directory is entered twice, none lies deeper than systems let them, and what a damaged or
/// made-up volume claims costs no more than a sound one of its size could.
class DirectoryWalk {
public:
    /// Clusters of a deleted file that are asked whether they are free.
    static constexpr std::uint64_t maxFreeChecks = 1'048'576;

    /// `chainedClusters`: how many clusters can be in chains. `progress` may be none.
    DirectoryWalk(DiskSource& source, const ClusterHeap& heap, std::uint64_t chainedClusters,
        const WorkProgress* progress)
        : source_(source)
        , heap_(heap)
        , progress_(progress)
        , chainBudget_(chainBudgetFactor * chainedClusters)
        , directoryBudget_(source.size())
    {
    }

    /// Whether the directory that begins at a cluster, `depth` levels below the root, is to be
    /// read. Says so once.
    bool enter(std::uint32_t cluster, int depth);

    /// A chain, by `follow(limit)`, that leaves room for the others.
    template <class Follow> ClusterChain chain(std::uint64_t maxClusters, Follow follow)
    {
        auto chain = follow(std::min(maxClusters, chainBudget_));
        chainBudget_ -= std::min<std::uint64_t>(chainBudget_, chain.clusters.size());
        return chain;
    }

    /// Hands a range of the source to `parse(bytes)`, in pieces of whole entries, until that
    /// answers false. False then.
    template <class Parse> bool read(std::uint64_t offset, std::uint64_t length, Parse parse)
    {
        while (length > 0) {
            buffer_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(length, readPiece)));
            if (buffer_.size() > directoryBudget_)
                return false;
            directoryBudget_ -= buffer_.size();
            source_.readReporting(offset, std::span(buffer_), ReadMode::thorough);
            if (!parse(ByteView(buffer_)))
                return false;
            offset += buffer_.size();
            length -= buffer_.size();
        }
        return true;
    }

    std::unordered_set<std::uint32_t>
        visited; ///< first clusters of the directories that were entered

private:
    /// On a sound volume every cluster belongs to one chain. On a damaged one chains may share
    /// clusters, but a volume whose chains together are so many times longer than its FAT is made
    /// up.
    static constexpr std::uint64_t chainBudgetFactor = 4;
    static constexpr std::size_t readPiece = 65'536;

    DiskSource& source_;
    const ClusterHeap& heap_;
    const WorkProgress* progress_;
    int directoriesRead_ = 0;
    std::uint64_t chainBudget_;     // clusters that chains may still hold, all together
    std::uint64_t directoryBudget_; // bytes of directories that may still be read: no more than
                                    // there are on the source
    Bytes buffer_;                  // of read()
};

/// The sectors that lie neither in the directories nor in the existing files of these volumes.
/// `isInRoot(info, offset)` tells of a place outside the clusters whether the root directory is
/// there.
template <class DeepInfo, class IsInRoot>
std::vector<std::uint64_t> sectorsOutside(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes, IsInRoot isInRoot)
{
    std::vector<std::uint64_t> outside(sectors.begin(), sectors.end());
    for (const auto& volume : volumes) {
        const auto* info = dynamic_cast<const DeepInfo*>(volume->deepContext.get());
        if (info == nullptr)
            continue;
        const auto& heap = info->context->geometry().heap;
        std::erase_if(outside, [&](std::uint64_t offset) {
            if (offset < heap.offset || (offset - heap.offset) / heap.clusterSize >= heap.count)
                return isInRoot(*info, offset);
            const auto cluster = heap.clusterAt(offset);
            return info->claimed.contains(cluster) || info->liveClusters.contains(cluster);
        });
    }
    return outside;
}

/// Completes a volume that was put together from so many directory sectors; none when it lists
/// nothing.
std::unique_ptr<Volume> finishRebuilt(
    std::unique_ptr<Volume> volume, std::string_view kind, std::size_t sectors);

/// Where directories may go on whose chains are lost.
struct LooseEnds {
    /// Clusters that go on in directories, by where the content begins that their first entry
    /// names.
    std::multimap<std::uint64_t, std::uint32_t> byFirstContent;

    /// Where a directory goes on that fills `cluster`; `behindLast`: the cluster behind the content
    /// that its last entry names. `canGoOnIn(cluster)` tells whether a directory goes on there, and
    /// nobody has claimed it.
    template <class CanGoOn>
    std::optional<std::uint32_t> next(
        std::uint32_t cluster, std::uint64_t behindLast, CanGoOn canGoOnIn)
    {
        // A directory that is full gets the next free cluster: the one behind it, or behind what
        // was written last.
        for (const std::uint64_t candidate : { std::uint64_t { cluster } + 1, behindLast })
            if (candidate <= std::numeric_limits<std::uint32_t>::max()
                && canGoOnIn(static_cast<std::uint32_t>(candidate)))
                return static_cast<std::uint32_t>(candidate);
        // Systems that write directories last let the files' contents follow each other.
        for (auto found = byFirstContent.find(behindLast); found != byFirstContent.end();
             found = byFirstContent.find(behindLast)) {
            const auto candidate
                = byFirstContent.extract(found).mapped(); // claimed by somebody, or now
            if (canGoOnIn(candidate))
                return candidate;
        }
        return std::nullopt;
    }
};

/// The folders that a walk has still to read. Those of the live tree come first, each folder's
/// content before what follows the folder, so that no deleted folder takes clusters from a live
/// one.
template <class Folder> class FolderQueue {
public:
    /// Adds the subfolders of a directory, in the order in which it lists them. `isDeleted(folder)`
    /// tells which of them wait. Those of a deleted directory wait no longer than it did.
    template <class IsDeleted>
    void add(const std::vector<Folder>& subfolders, bool parentIsDeleted, IsDeleted isDeleted)
    {
        for (auto subfolder = subfolders.rbegin(); subfolder != subfolders.rend(); ++subfolder)
            if (parentIsDeleted || !isDeleted(*subfolder))
                next_.push_back(*subfolder);
        if (!parentIsDeleted)
            std::copy_if(
                subfolders.begin(), subfolders.end(), std::back_inserter(deleted_), isDeleted);
    }

    void add(const Folder& folder) { next_.push_back(folder); }

    std::optional<Folder> take()
    {
        if (next_.empty() && !deleted_.empty()) {
            next_.push_back(deleted_.front());
            deleted_.pop_front();
        }
        if (next_.empty())
            return std::nullopt;
        const auto folder = next_.back();
        next_.pop_back();
        return folder;
    }

private:
    std::vector<Folder> next_;   // the last one is the next
    std::deque<Folder> deleted_; // met in the live tree, for afterwards
};
