#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryWalk.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"

#include <compare>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

/// Walks the directories of one volume and hangs what they list on the tree. The live tree goes
/// first, so that no deleted folder takes clusters from it.
class FATWalker {
public:
    FATWalker(FATContext& context, WorkProgress* progress);

    /// Where the entries come from. It decides what an entry without a deletion mark is worth.
    enum class Origin {
        live,     ///< a directory that exists
        deleted,  ///< a deleted directory
        fragment, ///< a directory that no other one leads to; what it lists may never have been
                  ///< deleted
    };

    /// Reads the fixed root directory of FAT12/16, or the root's chain on FAT32, and everything
    /// below it.
    void walkRoot(FileNode& root);

    /// Reads what is left of the directory that begins, or goes on, in a cluster, and the folders
    /// that it leads to.
    void walkFragment(std::uint32_t first, FileNode& folder, bool isRoot = false);
    /// The same for a fixed root directory.
    void walkLostRoot(std::uint64_t offset, std::uint64_t length, FileNode& root);

    /// Takes these for the first clusters of directories that were entered already.
    void skip(const std::unordered_set<std::uint32_t>& clusters) { walk_.visited = clusters; }

    /// The text of the root directory's volume label entry, if it has one.
    const std::optional<std::string>& label() const { return label_; }

    /// A cluster of which the first entry is the rest of a long name: the piece with this number,
    /// or 0 for the short entry.
    struct Head {
        int sequence;
        std::uint8_t checksum;
        std::uint32_t cluster;

        auto operator<=>(
            const Head&) const = default; // NOLINT(modernize-use-nullptr): what = default makes
    };
    std::set<Head> heads; ///< where a directory may go on that breaks off in a long name
    LooseEnds looseEnds;

    std::unordered_set<std::uint32_t> claimed; ///< every cluster that was read as directory content
    ClusterBits liveClusters;                  ///< the clusters of existing files

private:
    struct Pending {
        FileNode* folder;
        std::uint32_t cluster;
        Origin origin;
        int depth;
    };

    /// What the scan of one directory carries from entry to entry, and from cluster to cluster.
    struct Scan {
        FileNode& folder;
        Origin origin;
        int depth;
        bool isRoot;
        std::vector<FATEntries::LongNamePiece>
            pieces;                      // of the long name whose short entry is still to come
        std::vector<Pending> subfolders; // in the order found
        std::uint64_t behindLast = 0;    // the cluster behind the content that its last entry names
    };

    void walkPending();
    void queueSubfolders(const Scan& scan);
    void readDirectory(const Pending& pending);
    bool stillHasChain(std::uint32_t start);
    bool beginsIn(std::uint32_t cluster);
    std::uint64_t maxDirectoryClusters() const;
    void readChain(Scan& scan, std::uint32_t start);
    void readDeleted(Scan& scan, std::uint32_t start);
    void readFragment(Scan& scan, std::uint32_t start);
    std::optional<std::uint32_t> whereItGoesOn(const Scan& scan, std::uint32_t cluster);
    bool canGoOnIn(std::uint32_t cluster);
    /// False when the end of the directory was met.
    bool readRange(Scan& scan, std::uint64_t offset, std::uint64_t length);
    bool parseEntries(Scan& scan, ByteView bytes);
    void addPiece(Scan& scan, const FATEntries::LongNamePiece& piece);
    void addEntry(Scan& scan, const FATEntries::ShortEntry& entry);
    void fillFileData(FileNode& node, std::uint32_t start, Origin origin, bool isMarkedDeleted);
    bool fillFromChain(FileNode& node, std::uint32_t start);
    void fillContiguous(FileNode& node, std::uint32_t start);
    ClusterChain limitedChain(std::uint32_t start, std::uint64_t maxClusters);

    FATContext& context_;
    const FATGeometry& geometry_;
    const ClusterHeap& heap_;
    WorkProgress* progress_;
    DirectoryWalk walk_;
    FolderQueue<Pending> queue_;
    std::optional<std::string> label_;
};

namespace FATParser {

/// A root directory that no boot sector tells of.
struct LostRoot {
    FileNode& folder;
    std::uint64_t offset;   ///< of the cluster in which it begins, or of a fixed one
    std::string label = {}; ///< is filled in
};

/// As for a volume. `root`: is read first, if there is one.
std::unique_ptr<FileNode> lostEntries(FATDeepInfo& info, std::span<const std::uint64_t> sectors,
    WorkProgress* progress, LostRoot* root);

} // namespace FATParser
