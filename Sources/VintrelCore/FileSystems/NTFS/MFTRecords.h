#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

/// What is kept of the records of an MFT until the tree is built: of an ordinary file its node,
/// which becomes part of the tree, and how it is linked; the whole record only where other records
/// are needed to understand it.
class MFTRecords {
public:
    struct Entry {
        std::uint64_t number = 0;
        FileReference parent;
        Doubts doubts; ///< about its content
        LastWrite lastWrite;
        std::uint16_t sequence = 0;
        bool inUse = false;
        bool isIncomplete = false;      ///< until its extension records are merged
        bool isUnnamed = false;         ///< no name of it is left
        std::unique_ptr<FileNode> node; ///< none when it is not listed
    };

    explicit MFTRecords(const NTFSContext& context);

    /// Takes a record in; one without a number is dropped, and of two with the same number the
    /// first one stays. The record may be used again afterwards, its content is gone.
    void add(MFTRecord& record);
    /// How many records were taken in.
    std::size_t count() const { return count_; }
    /// Counts a record of a file that lies in sectors which cannot be read.
    void addUnreadable() { ++unreadable_; }
    std::size_t unreadable() const { return unreadable_; }

    /// To be called once, when all records are in: adds to every record what its extension records
    /// hold, and puts the entries in order.
    void finish();

    // What follows is for after `finish`.

    /// Those above the system's own numbers that have a name, or a content to save: by number, each
    /// number once.
    std::vector<Entry>& entries() { return entries_; }
    const std::vector<Entry>& entries() const { return entries_; }
    /// The index of the entry with this number; none when there is none.
    std::optional<std::size_t> find(std::uint64_t number) const;
    /// All names of an entry that has another one than the one it is shown under and its short
    /// form; none for all others.
    std::vector<FNInfo>* otherNames(std::uint64_t number);
    /// Where the indices of folders lie that do not fit in their records.
    const std::vector<RunList>& indices() const { return indices_; }
    /// Where blocks of further indices lie, in bytes on the source, which are known only by
    /// themselves. They must outlive this.
    void setLooseIndices(std::span<const std::uint64_t> offsets) { looseIndices_ = offsets; }
    std::span<const std::uint64_t> looseIndices() const { return looseIndices_; }
    /// The record of a system file; none when it was not taken in. Its extension records are not
    /// merged yet.
    MFTRecord* systemRecord(std::uint64_t number);
    void dropSystemRecord(std::uint64_t number) { whole_.erase(number); }
    /// Adds what the extension records hold that the record's attribute list names.
    void mergeExtensions(MFTRecord& record);

private:
    /// Fills the entry from a record that is complete.
    void describe(Entry& entry, MFTRecord& record);

    /// The extension records that say that they continue this one, for where its list is lost.
    std::vector<FileReference> extensionsNaming(std::uint64_t number);

    const NTFSContext& context_;
    std::size_t count_ = 0;
    std::size_t unreadable_ = 0;
    std::uint64_t listBudget_; ///< bytes of attribute lists that may still be read
    std::vector<Entry> entries_;
    /// Extensions, system files, and records with extensions.
    std::unordered_map<std::uint64_t, MFTRecord> whole_;
    std::unordered_multimap<std::uint64_t, FileReference> extensionsByBase_; ///< once it is needed
    std::unordered_map<std::uint64_t, std::vector<FNInfo>> otherNames_;
    std::vector<RunList> indices_;
    std::span<const std::uint64_t> looseIndices_;
};

namespace NTFSParser {

/// The number of the first record that is not the system's own.
inline constexpr std::uint64_t firstUserRecord = 16;
/// The record of the folder that all others hang below.
inline constexpr std::uint64_t rootRecord = 5;
/// The record of $Bitmap.
inline constexpr std::uint64_t bitmapRecord = 6;

} // namespace NTFSParser
