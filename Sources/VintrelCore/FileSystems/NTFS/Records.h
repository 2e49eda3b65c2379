#pragma once

#include "VintrelCore/FileSystems/NTFS/Runs.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Foundation/WOF.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// The records of the MFT, decoded. Nothing here reads the disk. The layouts are those of the "NTFS
// Documentation" of the Linux-NTFS project (Russon, Fledel).

/// The number of an MFT record together with the sequence number that the record had when it was
/// referred to. The record counts up whenever its slot is freed, so that a reference to a file that
/// is gone can be told.
struct FileReference {
    std::uint64_t number = 0;   ///< 48 bits
    std::uint16_t sequence = 0; ///< 0: not known

    bool operator==(const FileReference&) const = default;
};

/// What a record says of when it was written last.
struct LastWrite {
    std::uint64_t logSequence = 0; ///< of its last change in $LogFile
    std::uint64_t changed = 0;     ///< as a FILETIME; 0: not known
};

/// One name of a file: a $FILE_NAME attribute.
struct FNInfo {
    FileReference parent;
    std::string name;
    std::uint8_t nameSpace = 0; ///< 0 POSIX, 1 Win32, 2 DOS, 3 Win32 and DOS
    std::optional<Date> created;
    std::optional<Date> modified;
    std::uint64_t realSize = 0; ///< of the data, when the name was last touched; seldom up to date

    bool isDOS() const { return nameSpace == 2; }
};

/// One unnamed $DATA attribute: the whole of a file's content, or the part of it from `startVCN`
/// on. The three sizes are in bytes, and valid in the fragment that starts at VCN 0.
struct DataFragment {
    bool isResident = false;
    Bytes resident; ///< the content itself
    RunList runs;   ///< where a non-resident one lies
    std::uint64_t startVCN = 0;
    std::uint64_t allocatedSize = 0;  ///< of all clusters of the content
    std::uint64_t dataSize = 0;       ///< of the whole content
    std::uint64_t initSize = 0;       ///< bytes from here on were never written and are zeros
    std::uint8_t compressionUnit = 0; ///< log2 of the clusters in a unit
    bool isCompressed = false;
    bool isEncrypted = false;
    bool isSparse = false;
};

/// A $DATA attribute with a name: a stream beside the file's content, or a part of one.
struct StreamFragment {
    std::string name;
    DataFragment data;
};

/// What an MFT record says of its file.
struct MFTRecord {
    std::optional<std::uint64_t> number;
    bool inUse = false;
    bool isDirectory = false;
    std::uint16_t sequence = 0;
    /// Of an extension record: the record that it continues; both numbers are 0 in all others.
    FileReference base;
    /// False when a sector's end was not what was last written: it is older or newer, or damaged.
    bool fixupOK = true;
    LastWrite lastWrite;
    std::vector<FNInfo> names; ///< in the order of the attributes
    std::optional<Date> created;
    std::optional<Date> modified;
    std::vector<DataFragment> data;      ///< in the order of the attributes
    std::vector<StreamFragment> streams; ///< in the order of the attributes
    Bytes attributeList;                 ///< a resident one
    RunList attributeListRuns;           ///< of a non-resident one
    std::uint64_t attributeListSize = 0; ///< of a non-resident one, in bytes, as claimed
    std::string volumeName;              ///< of $Volume alone
    /// What kind of file it stands in for ([MS-FSCC], Reparse Tags); 0 when it is no reparse point.
    std::uint32_t reparseTag = 0;
    /// How Windows packed its content; none when it did not, or the tag is not in the record.
    std::optional<WOF::Method> packing;
    /// Where the tag lies, when it is not in the record.
    std::optional<std::uint64_t> reparseLCN;
    RunList indexRuns; ///< of a folder whose index does not fit in the record

    /// Where the index of a folder begins, when it does not fit in the record.
    std::optional<std::uint64_t> indexLCN() const
    {
        return indexRuns.empty() ? std::nullopt : indexRuns.front().lcn;
    }
    bool isExtension() const { return base != FileReference {}; }
    bool hasAttributeList() const { return !attributeList.empty() || !attributeListRuns.empty(); }
    /// Empties the record, and keeps the room that its lists have for the next one.
    void clear();
    /// The name that the file is shown under; none when it has no name.
    FNInfo* bestName();
    /// Whether this is the record that `reference` was made to, by number and sequence number.
    bool isTargetOf(FileReference reference) const;
};

/// Whether a record with this sequence number is the one that a reference with sequence number
/// `referred` was made to. Deleting a file counts its record up by one, and what refers to it stays
/// as it is; the count goes from FFFF to 1, and in some implementations to 0.
bool sequenceMatches(std::uint16_t referred, std::uint16_t sequence, bool inUse);

namespace NTFSParser {

/// The name that the value of a $FILE_NAME attribute holds; none when it ends before the name does.
/// The value may be followed by anything.
std::optional<FNInfo> fileNameIn(ByteView value);

/// How much of a record tells whether it is one.
inline constexpr std::size_t recordHeaderSize = 48;

/// Whether the bytes at `at` look like an MFT record.
bool looksLikeRecord(ByteView bytes, std::int64_t at = 0);

/// What the header of a record says of the record itself.
struct RecordIdentity {
    std::uint64_t number = 0;
    std::uint32_t size = 0; ///< in bytes, 1024 or 4096
};
/// None when the bytes do not look like a record, and for one that does not carry its number, as
/// those written before Windows XP do not.
std::optional<RecordIdentity> identityOfRecord(ByteView header);

/// Decodes a record into `record`, whatever that held. `bytes` are changed: the ends of their
/// sectors get back what the update sequence keeps of them. `number`: the record's number, where it
/// is known otherwise than by the record itself. False when it is no record.
bool parseRecord(
    std::span<std::uint8_t> bytes, std::optional<std::uint64_t> number, MFTRecord& record);

} // namespace NTFSParser
