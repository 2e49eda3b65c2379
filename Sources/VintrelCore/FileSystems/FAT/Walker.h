#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryWalker.h"
#include "VintrelCore/FileSystems/FAT/Context.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/Model/Chance.h"

#include <compare>
#include <optional>
#include <set>
#include <vector>

/// Walks the directories of one FAT volume.
class FATWalker : public DirectoryWalker {
public:
    FATWalker(FATContext& context, WorkProgress* progress);

    /// Reads the fixed root directory of FAT12/16, or the root's chain on FAT32, and everything
    /// below it.
    void walkRoot(FileNode& root);
    /// Reads what is left of a fixed root directory, and the folders below it.
    void walkLostRoot(std::uint64_t offset, std::uint64_t length, FileNode& root);

    /// Finds deleted directories of which the upper half of the first cluster's number was cleared,
    /// as some systems do, and reads them.
    void walkMisplaced();

    /// A cluster of which the first entry is the rest of a long name: the piece with this number,
    /// or 0 for the short entry.
    struct NameRest {
        int sequence;
        std::uint8_t checksum;
        std::uint32_t cluster;

        auto operator<=>(
            const NameRest&) const = default; // NOLINT(modernize-use-nullptr): what = default makes
    };
    std::set<NameRest> nameRests; ///< where a directory may continue that ends in a long name

private:
    /// What is known of the place of a file.
    struct Placed {
        Doubts doubts {};
        bool hasChain = false; ///< of a former file: its chain still stands
    };

    void readDirectory(Scan& scan) override;
    std::optional<std::int64_t> parse(Scan& scan, ByteView entries) override;
    bool holdsEntries(ByteView sector) override;
    void endEntries(Scan& scan) override;
    ClusterChain chain(std::uint32_t start, std::uint64_t maxClusters) override;
    void resumeEntries(std::uint32_t cluster) override;
    bool isInsideEntries() const override;
    std::optional<std::uint32_t> restOfEntries(std::uint32_t cluster) override;
    bool holdsMoreEntries(std::uint32_t cluster) override;

    bool hasChain(const QueuedDirectory& directory);
    bool beginsIn(std::uint32_t cluster);
    bool mayLackUpperHalf(std::uint32_t cluster) const;
    std::optional<std::uint32_t> truePlaceOf(const QueuedDirectory& directory);
    bool isDeletedDirectoryAt(std::uint32_t cluster, std::uint32_t parent);
    std::uint64_t maxDirectoryClusters() const;
    void readChain(Scan& scan);
    void readDeleted(Scan& scan);
    void addPiece(const FATEntries::LongNamePiece& piece);
    void addEntry(Scan& scan, const FATEntries::ShortEntry& entry);
    void addSubfolder(Scan& scan, FileNode& folder, std::uint32_t cluster, DirectoryState state);
    void takeLabel(const Scan& scan, const FATEntries::ShortEntry& entry);
    void judgeFile(FileNode& node, std::uint32_t start, DirectoryState state, bool isMarkedDeleted);
    Placed placeFile(FileNode& node, std::uint32_t start, DirectoryState state);
    bool fillFromChain(FileNode& node, std::uint32_t start);
    Doubts fillContiguous(FileNode& node, std::uint32_t start);

    FATContext& context_;
    const FATGeometry& geometry_;
    std::uint64_t placeBudget_ = 1'048'576; // that misplaced directories may still be looked for in
    bool isLevelFixed_ = false; // what a volume's own tables list keeps the chance they give
    std::vector<FATEntries::LongNamePiece>
        pieces_; // of the long name whose short entry is still to come
};
