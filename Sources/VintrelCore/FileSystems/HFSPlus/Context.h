#pragma once

#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

class DiskSource;

/// Reads one HFS+ volume.
class HFSContext {
public:
    HFSContext(DiskSource& source, std::uint64_t base, const HFSPlusFormat::VolumeHeader& header);

    /// None when there is no usable catalog, or nothing in it.
    std::unique_ptr<Volume> build(const std::string& origin, WorkProgress* progress);

private:
    struct Run {
        std::uint32_t start = 0; ///< allocation block of the volume
        std::uint32_t count = 0;
    };
    using Runs = std::vector<Run>;

    struct OverflowRuns {
        std::uint32_t start = 0; ///< block of the file at which they begin
        Runs runs;
    };

    /// A file or folder record of the catalog. Its fields are read again where they are needed: the
    /// catalog stays in memory, and has more of them than any other volume has of anything.
    struct CatalogEntry {
        std::uint32_t parent = 0;
        std::uint32_t modified = 0; ///< as stored; 0: no date, and earlier than all
        std::uint32_t at = 0;       ///< the record, its key included, in the catalog file
        std::uint16_t length = 0;   ///< of the record, in bytes
        bool isLive = false;
        bool isFolder = false;
        FileNode* node = nullptr; ///< none until it is made, and for what is not listed
    };

    void loadOverflow();
    void loadCatalog();
    void addToCatalog(ByteView record, bool isLive);
    Bytes readFork(
        const HFSPlusFormat::ForkData& fork, std::uint32_t fileID, std::uint64_t cap) const;
    bool isDamaged(const Runs& runs, std::uint64_t offset, std::uint64_t length) const;
    static Runs inlineRuns(const HFSPlusFormat::ForkData& fork);
    Runs allRuns(const HFSPlusFormat::ForkData& fork, std::uint32_t fileID) const;
    /// The place of a block on the source; none at or beyond its end.
    std::optional<std::uint64_t> offsetOf(std::uint32_t block) const;
    bool isAllocated(std::uint64_t block) const;

    std::string nameOf(const CatalogEntry& entry) const;
    /// The data of a record, behind its key.
    static ByteView dataOf(ByteView record);
    ByteView dataOf(const CatalogEntry& entry) const;
    void indexHardLinks();
    void linkTree(FileNode& root);
    bool reaches(std::uint32_t id);
    std::unique_ptr<FileNode> makeNode(std::uint32_t id, const CatalogEntry& entry) const;
    void fill(FileNode& node, std::uint32_t id, const CatalogEntry& entry) const;
    void estimateDeleted(FileNode& node, const Runs& runs) const;

    DiskSource& source_;
    const std::uint64_t base_;
    const HFSPlusFormat::VolumeHeader header_;
    const std::uint64_t blockSize_;
    std::unordered_map<std::uint32_t, std::vector<OverflowRuns>>
        overflow_;     // by file ID, ascending once loaded
    Bytes allocation_; // empty: could not be read
    std::optional<HFSPlusTree> catalog_;
    std::unordered_map<std::uint32_t, CatalogEntry> entries_; // by catalog node ID
    std::unordered_map<std::uint32_t, std::uint32_t>
        inodes_; // IDs of the hard links' files, by their number
    std::unordered_map<std::uint32_t, bool> reaches_; // memo of reaches()
};
