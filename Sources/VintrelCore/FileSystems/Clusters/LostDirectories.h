#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/Clusters/DirectoryWalker.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

/// A root directory that no boot sector tells of.
struct LostRoot {
    FileNode& folder;       ///< takes what the directory lists
    std::uint64_t offset;   ///< of it, or of the cluster in which it begins
    std::string label = {}; ///< the volume's; is filled in
};

/// Finds directories of one volume that no other one leads to, or what is left of them. Each file
/// system says what a sector tells.
class LostDirectories {
public:
    LostDirectories(const LostDirectories&) = delete;
    LostDirectories& operator=(const LostDirectories&) = delete;
    virtual ~LostDirectories() = default;

    /// The status of files that were not deleted, and of their folders, where another one than
    /// `deleted` is wanted.
    void setStatusOfLost(EntryStatus status) { walker_.lostStatus = status; }

    /// What these sectors (offsets in any order) hold beyond the directories that were read: the
    /// folder "$Tabte mappefragmenter", or none. `root` is read first, if it is not none. Adds to
    /// `claims` what was read, and to the folders of its broken directories what lies behind the
    /// break.
    std::unique_ptr<FileNode> find(
        std::vector<std::uint64_t> sectors, ClusterClaims& claims, LostRoot* root);

protected:
    /// A cluster with directory sectors that no directory has claimed.
    struct Fragment {
        std::uint32_t cluster = 0;
        bool isBeginning = false;    ///< it says that a directory begins in it
        bool namesFolder = false;    ///< one that is where it says
        bool isContinuation = false; ///< it may belong to a directory that begins elsewhere
        bool isForeign = false;      ///< it belongs to another volume
    };

    LostDirectories(DiskSource& source, const ClusterHeap& heap, DirectoryWalker& walker,
        WorkProgress* progress)
        : source_(source)
        , heap_(heap)
        , walker_(walker)
        , progress_(progress)
    {
    }

    /// Finds out what one of its sectors tells of a fragment. `isFirst`: none was asked before.
    virtual void survey(Fragment& fragment, std::uint64_t sector, bool isFirst) = 0;
    virtual void walkRoot(LostRoot& root);
    /// Reads deleted directories that are not where their entries say.
    virtual void walkMisplaced() { }

    DiskSource& source_;
    const ClusterHeap& heap_;
    std::vector<Fragment> fragments_;         // ascending
    std::unordered_set<std::uint32_t> named_; // where the fragments' entries have folders

private:
    void walkRests(FileNode& lostFolder);
    void walkDeleted();
    void surveyAll(std::span<const std::uint64_t> sectors, const ClusterClaims& claims);
    template <class IsTurn> void walkFragments(FileNode& folder, IsTurn isTurn);

    DirectoryWalker& walker_;
    WorkProgress* progress_;
};
