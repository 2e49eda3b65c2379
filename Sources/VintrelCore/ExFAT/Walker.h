#pragma once

#include "VintrelCore/DirectoryWalk.h"
#include "VintrelCore/ExFAT.h"
#include "VintrelCore/ExFAT/EntrySets.h"

#include <optional>
#include <string>
#include <vector>

/// Walks the directories of one exFAT volume and hangs what they list on the tree: the live tree first, then what was
/// deleted.
class ExFATWalker {
public:
    ExFATWalker(ExFATContext& context, WorkProgress* progress);

    /// Finds the allocation bitmap, and then reads the root directory and everything below it.
    void walkRoot(FileNode& root);

    /// The volume's label, if its root directory has one.
    const std::optional<std::string>& label() const { return label_; }

private:
    struct Pending {
        FileNode* folder;
        std::uint32_t cluster;
        std::uint64_t size; ///< in bytes; 0: not known, up to the end mark
        bool isContiguous;
        bool isDeleted;
        int depth;
    };

    Pending rootDirectory(FileNode* root) const;

    /// What the scan of one directory carries from entry to entry, and from cluster to cluster.
    struct Scan {
        const Pending& directory;
        ExFATEntries::SetCollector collector;
        std::vector<Pending> subfolders; // in the order found
    };

    void findBitmap();
    void readDirectory(const Pending& directory);
    void readLive(Scan& scan);
    void readDeleted(Scan& scan);
    ExtentList extentsOf(const Pending& directory);
    bool readRange(Scan& scan, std::uint64_t offset, std::uint64_t length);
    bool parseEntries(Scan& scan, ByteView bytes);
    void addSet(Scan& scan, const ExFATEntries::EntrySet& set);
    void fillFileData(FileNode& node, const ExFATEntries::EntrySet& set);
    void placeFile(FileNode& node, const ExFATEntries::StreamEntry& stream);
    void estimateDeleted(FileNode& node, const ExtentList& extents, bool isCertain);
    ExtentList standingChain(std::uint32_t start, std::uint64_t size);
    ClusterChain limitedChain(std::uint32_t start, std::uint64_t maxClusters);

    ExFATContext& context_;
    const ClusterHeap& heap_;
    WorkProgress* progress_;
    DirectoryWalk walk_;
    FolderQueue<Pending> queue_;
    std::optional<std::string> label_;
};
