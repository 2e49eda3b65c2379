#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryWalk.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

/// Walks the directories of one exFAT volume and hangs what they list on the tree: the live tree
/// first, then what was deleted.
class ExFATWalker {
public:
    ExFATWalker(ExFATContext& context, WorkProgress* progress);

    /// Finds the allocation bitmap, and then reads the root directory and everything below it.
    void walkRoot(FileNode& root);

    /// Reads what is left of the directory that begins, or goes on, in a cluster, and the folders
    /// that it leads to.
    void walkFragment(std::uint32_t first, FileNode& folder, bool isRoot = false);

    /// The volume's label, if its root directory has one.
    const std::optional<std::string>& label() const { return label_; }

    std::set<std::uint32_t> heads; ///< clusters that begin in the middle of a set
    LooseEnds looseEnds;

    ClusterBits claimed;      ///< every cluster that was read as directory content
    ClusterBits liveClusters; ///< the clusters of existing files, and of the file system's own

private:
    /// Where the entries come from. It decides what a set that is in use is worth.
    enum class Origin {
        live,     ///< a directory that exists
        deleted,  ///< a deleted directory
        fragment, ///< a directory that no other one leads to; what it lists may never have been
                  ///< deleted
    };

    struct Pending {
        FileNode* folder;
        std::uint32_t cluster;
        std::uint64_t size; ///< in bytes; 0: not known, up to the end mark
        bool isContiguous;
        Origin origin;
        int depth;
    };

    Pending rootDirectory(FileNode* root) const;

    /// What the scan of one directory carries from entry to entry, and from cluster to cluster.
    struct Scan {
        const Pending& directory;
        ExFATEntries::SetCollector collector;
        std::vector<Pending> subfolders; // in the order found
        std::uint64_t behindLast = 0;    // the cluster behind the content that its last set names
    };

    void findBitmap();
    void readDirectory(const Pending& directory);
    void readLive(Scan& scan);
    void readDeleted(Scan& scan);
    void readFragment(Scan& scan);
    std::optional<std::uint32_t> whereItGoesOn(const Scan& scan, std::uint32_t cluster);
    bool completes(ExFATEntries::SetCollector begun, std::uint32_t cluster);
    bool isTaken(std::uint32_t cluster) const
    {
        return claimed.contains(cluster) || liveClusters.contains(cluster);
    }
    void walkPending();
    void claim(const ExtentList& extents, ClusterBits& clusters);
    ExtentList extentsOf(const Pending& directory);
    bool readRange(Scan& scan, std::uint64_t offset, std::uint64_t length);
    bool parseEntries(Scan& scan, ByteView bytes);
    void addSet(Scan& scan, const ExFATEntries::EntrySet& set);
    void fillFileData(FileNode& node, const ExFATEntries::EntrySet& set, bool isLost);
    void placeFile(FileNode& node, const ExFATEntries::StreamEntry& stream, bool isLost);
    void estimateDeleted(FileNode& node, const ExtentList& extents, bool isCertain, bool isLost);
    bool areFree(std::uint32_t first, std::uint64_t count, bool isLost) const;
    ExtentList standingChain(std::uint32_t start, std::uint64_t size);
    ClusterChain limitedChain(std::uint32_t start, std::uint64_t maxClusters);

    ExFATContext& context_;
    const ClusterHeap& heap_;
    WorkProgress* progress_;
    DirectoryWalk walk_;
    FolderQueue<Pending> queue_;
    std::optional<std::string> label_;
    std::uint64_t
        claimBudget_; // clusters that may still be claimed: made-up files can overlap without end
};

namespace ExFATParser {

/// A root directory that no boot sector tells of.
struct LostRoot {
    FileNode& folder;
    std::uint32_t cluster;  ///< in which it begins
    std::string label = {}; ///< is filled in
};

/// As for a volume. `root`: is read first, if there is one.
std::unique_ptr<FileNode> lostEntries(ExFATDeepInfo& info, std::span<const std::uint64_t> sectors,
    WorkProgress* progress, LostRoot* root);

} // namespace ExFATParser
