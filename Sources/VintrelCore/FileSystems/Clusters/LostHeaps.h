#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/Clusters/DeepInfo.h"
#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"
#include "VintrelCore/FileSystems/Clusters/FormerFiles.h"
#include "VintrelCore/FileSystems/Clusters/LostDirectories.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

/// What a file system allows.
struct LostHeapLimits {
    int maxClusterShift; ///< of the cluster size, as a power of two
    std::uint64_t maxClusters;
    std::uint64_t rootSpace; ///< bytes before the clusters in which a root directory may lie
    bool foldersVote;        ///< no directory says itself where it lies, only the one above it
};

/// Puts volumes without a boot sector together from directory sectors that a sweep found: where
/// their clusters lie is what most of these agree on. Each file system says what a sector tells,
/// and how its roots are found.
class LostHeaps {
public:
    LostHeaps(DiskSource& source, const DirectoryHints& hints, WorkProgress* progress,
        const LostHeapLimits& limits)
        : source_(source)
        , progress_(progress)
        , hints_(hints)
        , limits_(limits)
    {
    }
    LostHeaps(const LostHeaps&) = delete;
    LostHeaps& operator=(const LostHeaps&) = delete;
    virtual ~LostHeaps() = default;

    /// The volumes that the sectors (ascending) belong to, without those that are known.
    VolumeList rebuild(std::span<const std::uint64_t> sectors);

protected:
    /// What a sector tells.
    struct Clues {
        struct File {
            std::uint32_t cluster;
            std::uint64_t size;
        };

        void addFolder(std::uint32_t cluster)
        {
            if (cluster >= 2)
                folders.push_back(cluster);
        }
        void addFile(std::uint32_t cluster, std::uint64_t size)
        {
            if (cluster >= 2)
                files.push_back({ cluster, size });
        }

        std::optional<std::uint32_t> ownCluster {}; ///< where it lies, if it says so
        bool isBelowRoot = false;              ///< says that it belongs to a folder of the root
        bool mayBegin = false;                 ///< a directory may begin in it
        bool isRoot = false;                   ///< it holds what only root directories do
        std::vector<std::uint32_t> folders {}; ///< their first clusters
        std::vector<File> files {};
    };

    struct LostHeap {
        ClusterHeap heap;
        bool isKnown = false;                         ///< a volume has it already
        std::optional<std::uint64_t> rootSector = {}; ///< a sector of the root directory
    };

    virtual Clues cluesOf(std::uint64_t sector) = 0;
    /// Whether what a sector of a root directory names beside files lies where the heap, of which
    /// the count is not known, would have it.
    virtual bool confirmsHeap(std::uint64_t /*rootSector*/, const ClusterHeap& /*heap*/)
    {
        return false;
    }
    /// Where a root directory that names a folder of the root nearly always lies, whether or not
    /// its sectors were found; the last one counts most.
    virtual std::vector<std::uint64_t> usualRoots(const ClusterHeap& /*heap*/) { return {}; }
    /// The volume that these sectors, at least one, belong to; none when nothing is listed.
    virtual std::unique_ptr<Volume> build(
        const LostHeap& lost, const std::vector<std::uint64_t>& sectors)
        = 0;

    /// A volume with what a search of the directories finds on it; none when that is nothing.
    template <class Search, class Context>
    std::unique_ptr<Volume> volumeOf(std::unique_ptr<Context> context, FileSystemType type,
        std::string_view kind, std::optional<std::uint64_t> rootOffset,
        const std::vector<std::uint64_t>& sectors)
    {
        const auto& heap = context->geometry().heap;
        auto volume = emptyVolume(type, heap);
        auto info = std::make_unique<ClusterDeepInfo<Context>>(
            std::move(context), ClusterClaims(heap, source_.size()));
        LostRoot root { .folder = *volume->root, .offset = rootOffset.value_or(0) };
        Search search(*info->context, progress_);
        // No system lists them any more, and nothing says that they were deleted.
        search.setStatusOfLost(EntryStatus::orphaned);
        if (auto folder = search.find(sectors, info->claims, rootOffset ? &root : nullptr))
            volume->root->add(std::move(folder));
        judgeFormerFiles(info->claims, heap, true);
        info->isRebuilt = true;
        volume->label = root.label;
        const bool hasFAT = !info->context->fatUnavailable();
        volume->deepContext = std::move(info);
        return finished(std::move(volume), kind, sectors.size(), hasFAT);
    }

    DiskSource& source_;
    WorkProgress* progress_;

private:
    /// A sector that was found, without the lists of what it names.
    struct Sector {
        std::uint64_t offset;
        std::optional<std::uint32_t> ownCluster;
        bool isBelowRoot;
        bool mayBegin;
        bool isRoot;
        std::optional<std::size_t> owner {}; // index of its heap
    };

    /// A file or folder that a sector names.
    struct Named {
        std::uint32_t cluster;
        std::size_t sector;                    // its index
        std::optional<std::uint64_t> found {}; // where a file of its size was found by its content
    };

    /// How many folders that a sector names are where a heap would have them.
    struct Support {
        std::size_t folders = 0;
        std::size_t foldersOfRoot = 0;
    };

    static std::unique_ptr<Volume> emptyVolume(FileSystemType type, const ClusterHeap& heap);
    static std::unique_ptr<Volume> finished(
        std::unique_ptr<Volume> volume, std::string_view kind, std::size_t sectors, bool hasFAT);

    void survey(std::span<const std::uint64_t> sectors);
    std::optional<ClusterHeap> likeliestHeap();
    bool isConfirmedByRoot(const ClusterHeap& heap);
    bool assign(const LostHeap& lost);
    bool assignNamed(std::size_t index);
    bool assignSelfPlaced(std::size_t index);
    static bool mayBelongTo(const Sector& sector, std::size_t index);
    std::vector<Support> supportOf(const Clues& clues);
    void findUsualRoots();
    void assignByFolders();
    void assignByNeighbours();
    void findMarkedRoots();
    std::unique_ptr<Volume> volumeAt(std::size_t index);
    Sector* beginningAt(std::uint64_t offset);

    const DirectoryHints& hints_;
    LostHeapLimits limits_;
    std::vector<Sector> sectors_; // ascending
    std::vector<Named> named_;
    std::vector<LostHeap> heaps_;
};
