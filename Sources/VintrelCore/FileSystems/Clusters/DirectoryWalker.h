#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/ClusterClaims.h"
#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/Clusters/Continuations.h"
#include "VintrelCore/FileSystems/Clusters/DirectoryQueue.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Walks the directories of one FAT or exFAT volume and hangs what they list on a tree: the live
/// tree first, then what was deleted. No directory is entered twice, none lies deeper than systems
/// let them, and what a damaged or made-up volume says costs no more than a sound one of its size
/// could. Used by one thread.
class DirectoryWalker {
public:
    DirectoryWalker(const DirectoryWalker&) = delete;
    DirectoryWalker& operator=(const DirectoryWalker&) = delete;
    virtual ~DirectoryWalker() = default;

    /// Takes over what earlier walks have claimed: directories that are listed already are not
    /// listed again.
    void continueFrom(ClusterClaims earlier)
    {
        visited_ = earlier.claimed;
        claims = std::move(earlier);
    }

    /// Reads what is left of the directory that begins, or continues, in a cluster, and the folders
    /// below it.
    void walkFragment(std::uint32_t first, FileNode& folder, bool isRoot = false);
    /// Reads the rest of a directory into a folder, and the folders below it.
    void walkRest(const DirectoryRest& rest, FileNode& folder);
    /// Reads a deleted directory on where it seems to continue, and the folders below it.
    void walkOn(const OpenDirectory& directory);

    /// The volume's label, if a root directory that was read has one.
    const std::optional<std::string>& label() const { return label_; }

    /// Bytes of directories that could not be read: what they listed is not known.
    std::uint64_t unreadableBytes() const { return unreadableBytes_; }

    ClusterClaims claims;
    Continuations continuations;
    Continuations deletedContinuations; ///< the same of directories whose entries were deleted
    /// The status of what bears no deletion mark in a directory that no live one leads to.
    EntryStatus lostStatus = EntryStatus::deleted;

protected:
    /// What reading one directory carries from entry to entry, and from cluster to cluster.
    struct Scan {
        const QueuedDirectory& directory;
        std::vector<QueuedDirectory> subfolders {}; // in the order found
        std::uint64_t endOfContent = 0;             // the cluster behind what the last entry names
    };

    /// The note on a folder whose directory is gone.
    static constexpr std::string_view overwrittenFolder = "Mappens indhold er overskrevet";
    /// The note on a deleted folder whose directory has no end where it was read.
    static constexpr std::string_view openFolder = "Mappen fortsætter muligvis et andet sted";

    /// Clusters of a deleted file that are asked whether they are free.
    static constexpr std::uint64_t maxFreeChecks = 1'048'576;

    /// `chainedClusters`: how many clusters can be in chains. `progress` may be none.
    DirectoryWalker(DiskSource& source, const ClusterHeap& heap, std::uint64_t chainedClusters,
        const WorkProgress* progress);

    /// Reads one directory by what became of it.
    virtual void readDirectory(Scan& scan) = 0;
    /// Lists whole entries. The place among them where the directory ends; none where it goes on.
    virtual std::optional<std::int64_t> parse(Scan& scan, ByteView entries) = 0;
    /// Whether a sector in the middle of a directory holds entries, and nothing else.
    virtual bool holdsEntries(ByteView sector) = 0;
    /// Lists what is left of a file's entries whose other part is missing.
    virtual void endEntries(Scan& scan) = 0;
    /// The chain from a cluster on, at most so many clusters long.
    virtual ClusterChain chain(std::uint32_t start, std::uint64_t maxClusters) = 0;
    /// Takes up the entries that are cut by the end of a cluster.
    virtual void resumeEntries(std::uint32_t /*cluster*/) { }
    /// Whether what was read last is only the first part of a file's entries.
    virtual bool isInsideEntries() const = 0;
    /// Where the other part lies; none when nothing fits.
    virtual std::optional<std::uint32_t> restOfEntries(std::uint32_t cluster) = 0;
    /// Whether a cluster holds entries, and no directory begins in it that says so.
    virtual bool holdsMoreEntries(std::uint32_t cluster) = 0;

    /// Reads a directory and all that is below it, and then what was deleted.
    void walk(const QueuedDirectory& directory);
    /// The same for one that lies outside the clusters.
    void walkFixedRoot(
        const QueuedDirectory& directory, std::uint64_t offset, std::uint64_t length);

    /// Parses a range of the source until the directory's end. The byte of the source where that
    /// was met; none when it was not.
    std::optional<std::uint64_t> readRange(Scan& scan, std::uint64_t offset, std::uint64_t length);
    std::optional<std::uint64_t> readExtents(Scan& scan, const ExtentList& extents);
    /// What lies in a directory's extents behind the byte where it seems to end.
    DirectoryRest restBehind(
        const QueuedDirectory& directory, const ExtentList& extents, std::uint64_t end);
    /// Keeps it among the claims when it holds anything.
    void noteRest(const QueuedDirectory& directory, const ExtentList& extents, std::uint64_t end);
    void readRest(Scan& scan, const DirectoryRest& rest);
    /// Keeps among the claims that a deleted directory goes on behind a cluster.
    void noteOpen(const Scan& scan, std::uint32_t lastCluster);
    /// Parses one cluster, which belongs to the directory from now on. False at the directory's
    /// end.
    bool readCluster(Scan& scan, std::uint32_t cluster);
    /// Follows a directory without a chain from cluster to cluster, by what they hold.
    void readByContent(Scan& scan);

    /// A chain that leaves room for the others.
    ClusterChain limitedChain(std::uint32_t start, std::uint64_t maxClusters);
    /// The status of an entry in a directory of this state.
    EntryStatus statusIn(DirectoryState state) const;
    bool canContinueIn(std::uint32_t cluster);

    DiskSource& source_;
    const ClusterHeap& heap_;
    std::optional<std::string> label_;

private:
    bool enter(const QueuedDirectory& directory);
    void walkQueue();
    bool spend(std::uint64_t length);
    void addSectors(DirectoryRest& rest, std::uint64_t offset, bool& isGap);
    std::optional<std::uint32_t> continuation(const Scan& scan, std::uint32_t cluster);

    const WorkProgress* progress_;
    DirectoryQueue queue_;
    ClusterBits visited_; // the first clusters of the directories that were entered, and more
    int directoriesRead_ = 0;
    std::uint64_t chainBudget_; // clusters that chains may still hold, all together
    std::uint64_t unreadableBytes_ = 0;
    std::uint64_t directoryBudget_; // bytes of directories that may still be read
    Bytes buffer_;                  // of readRange()
};
