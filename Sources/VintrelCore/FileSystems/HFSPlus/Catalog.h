#pragma once

#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The files and folders that the catalog of a volume has records of, also in nodes that it gave
/// up. It keeps the catalog file in memory. Used by one thread at a time.
class HFSPlusCatalog {
public:
    /// A file or folder record. Its other fields are read where they are needed: a catalog can have
    /// more records than any other volume has of anything.
    struct Entry {
        std::uint32_t id = 0;
        std::uint32_t parent = 0;
        std::uint32_t modified = 0; ///< as stored; 0: no date, and earlier than all
        std::uint32_t at = 0;       ///< the record, its key included, in the catalog file
        std::uint16_t length = 0;   ///< of the record, in bytes
        bool isLive = false;        ///< its node is part of the catalog's tree
        bool isFolder = false;
    };

    /// None when the catalog file is no B-tree.
    static std::optional<HFSPlusCatalog> load(
        const HFSPlusForks& forks, const HFSPlusFormat::VolumeHeader& header);

    /// How many bytes of the catalog file could not be read.
    std::uint64_t lostBytes() const { return lostBytes_; }
    /// One for each ID, ascending.
    const std::vector<Entry>& entries() const { return entries_; }
    /// None when no record has this ID.
    const Entry* find(std::uint32_t id) const;

    /// In composed form, as other systems write names.
    std::string nameOf(const Entry& entry) const;
    /// The dates and flags that files and folders have in common, zeros beyond the record's end.
    HFSPlusFormat::CatalogItem itemOf(const Entry& entry) const;
    /// The record of a file, which is there whole; all zeros for a folder.
    HFSPlusFormat::CatalogFile fileOf(const Entry& entry) const;

private:
    explicit HFSPlusCatalog(HFSPlusBTree tree);

    void add(ByteView record, bool isLive);
    void keepBest();
    ByteView dataOf(const Entry& entry) const;

    HFSPlusBTree tree_;
    std::uint64_t lostBytes_ = 0;
    std::vector<Entry> entries_;
};
