#pragma once

#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/FileSystems/HFSPlus/Forks.h"
#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The files and folders that the catalog of a volume has records of, also in nodes that it gave
/// up. It keeps their records in memory, and nothing else of the catalog file. Used by one thread
/// at a time.
class HFSPlusCatalog {
public:
    /// A file or folder record. Its other fields are read where they are needed: a catalog can have
    /// more records than any other volume has of anything.
    struct Entry {
        std::uint32_t id = 0;
        std::uint32_t parent = 0;
        std::uint32_t modified = 0; ///< as stored; 0: no date, and earlier than all
        std::uint32_t node = 0;     ///< in which the record lies
        std::uint64_t at = 0;       ///< the record, its key included, among those that are kept
        std::uint16_t length = 0;   ///< of the record, in bytes
        HFSPlusBTree::Use use = HFSPlusBTree::Use::givenUp; ///< of its node
        bool isFolder = false;
        bool isThread = false; ///< the record names the folder, and says nothing else of it

        bool isLive() const { return use != HFSPlusBTree::Use::givenUp; }
    };

    /// What a quick scan reads of a catalog.
    static constexpr std::uint64_t maxQuickBytes = 1'073'741'824;

    struct Options {
        std::uint64_t maxBytes = maxQuickBytes;
        bool mayLackHeader = false; ///< whether it is read where its header node is lost, too
    };

    /// None when the catalog file is no B-tree.
    static std::optional<HFSPlusCatalog> load(const HFSPlusForks& forks,
        const HFSPlusFormat::VolumeHeader& header, const Options& options);

    /// How long the catalog record is that begins with these bytes; 0 when none does, or only its
    /// beginning is there.
    static std::size_t recordLength(ByteView bytes);

    /// Adds what a leaf says that lies outside the catalog: an older state of it, of which the
    /// records count whose IDs no live record has. Each ID and name counts once, with its latest
    /// date.
    void addLooseLeaf(ByteView node);
    /// The records of such leaves.
    const std::vector<Entry>& looseEntries() const { return loose_; }
    /// In bytes; of the catalog's nodes.
    std::uint32_t nodeSize() const { return nodeSize_; }

    const HFSPlusTreeHealth& health() const { return health_; }
    /// Whether the catalog file is longer than what was to be read of it.
    bool isCapped() const { return isCapped_; }
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
    /// The Finder's information; empty when the record ends before it.
    ByteView finderInfoOf(const Entry& entry) const;

private:
    HFSPlusCatalog() = default;

    void add(ByteView record, std::uint32_t node);
    std::optional<Entry> decoded(ByteView record) const;
    void addLoose(ByteView record);
    void addThread(ByteView record, std::uint32_t node);
    Entry kept(Entry entry, ByteView record);
    void addLostFolders();
    void keepBest();
    ByteView recordOf(const Entry& entry) const;
    ByteView dataOf(const Entry& entry) const;

    HFSPlusTreeHealth health_;
    bool isCapped_ = false;
    Bytes records_;
    std::vector<Entry> entries_;
    std::vector<Entry> loose_;
    std::map<std::pair<std::uint32_t, std::string>, std::size_t> looseIndex_; // by ID and name
    std::uint32_t nodeSize_ = 0;
    std::vector<Entry> threads_; // of folders; not kept beyond loading
};
