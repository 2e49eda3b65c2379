#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

class DiskSource;
struct CarvedFile;

/// The number of an MFT record together with the sequence number that the record had when it was
/// referred to. The record counts up whenever its slot is freed, so that a reference to a file that
/// is gone can be told.
struct FileReference {
    std::uint64_t number = 0;   ///< 48 bits
    std::uint16_t sequence = 0; ///< 0: not known

    bool operator==(const FileReference&) const = default;
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
/// on.
struct DataFragment {
    using Runs = std::vector<CompressedRuns::Run>;

    bool isResident = false;
    Bytes resident; ///< the content itself
    Runs runs;      ///< where a non-resident one lies
    std::uint64_t startVCN = 0;
    std::uint64_t allocatedSize
        = 0; ///< of all clusters of the content, in bytes; valid as `dataSize` is
    std::uint64_t dataSize
        = 0; ///< of the whole content; valid in the fragment that starts at VCN 0
    std::uint64_t initSize
        = 0; ///< bytes from here on were never written and are zeros; valid as `dataSize` is
    std::uint8_t compressionUnit = 0; ///< log2 of the clusters in a unit
    bool isCompressed = false;
    bool isEncrypted = false;
    bool isSparse = false;
};

/// What an MFT record says of its file.
struct MFTRecord {
    std::optional<std::uint64_t> number;
    bool inUse = false;
    bool isDirectory = false;
    std::uint16_t sequence = 0;
    FileReference base; ///< of an extension record: the record that it continues; both numbers 0 in
                        ///< all others
    bool fixupOK = true; ///< false when a sector's end was not what was last written: it is older
                         ///< or newer, or damaged
    std::vector<FNInfo> names; ///< in the order of the attributes
    std::optional<Date> created;
    std::optional<Date> modified;
    std::vector<DataFragment> data;       ///< in the order of the attributes
    Bytes attributeList;                  ///< a resident one
    DataFragment::Runs attributeListRuns; ///< of a non-resident one
    std::uint64_t attributeListSize = 0;
    std::string volumeName; ///< of $Volume alone
    std::optional<std::uint64_t>
        indexLCN; ///< of a folder whose index does not fit in the record: where it begins

    bool isExtension() const { return base != FileReference {}; }
    bool hasAttributeList() const { return !attributeList.empty() || !attributeListRuns.empty(); }
    /// The name that the file is shown under; none when it has no name.
    FNInfo* bestName();
    /// Whether `reference` means this very record, or the file that was deleted from it last.
    bool isMeantBy(FileReference reference) const;
};

/// Whether a record with this sequence number is the one that a reference with sequence number
/// `referred` was made to. Deleting a file counts its record up by one, and what refers to it stays
/// as it is; the count goes from FFFF to 1, and in some implementations to 0.
bool sequenceMatches(std::uint16_t referred, std::uint16_t sequence, bool inUse);

class NTFSContext;

/// What is kept of the records of an MFT until the tree is built: of an ordinary file its node,
/// which becomes part of the tree, and how it is linked; the whole record only where other records
/// are needed to understand it.
class MFTRecords {
public:
    explicit MFTRecords(const NTFSContext& context)
        : context_(context)
    {
    }

    /// Takes a record in; one without a number is dropped, and of two with the same number the
    /// first one stays. The record may be used again afterwards, its content is gone.
    void add(MFTRecord& record);
    /// How many records were taken in.
    std::size_t count() const { return count_; }

private:
    friend class NTFSTree;

    struct Entry {
        std::uint64_t number = 0;
        FileReference parent;
        std::uint16_t sequence = 0;
        std::uint8_t doubts = 0; ///< about its content
        bool inUse = false;
        bool isPending = false;         ///< its record is among `whole_`
        std::unique_ptr<FileNode> node; ///< none when it is not listed
    };

    /// Fills the entry from a record that is complete.
    void describe(Entry& entry, MFTRecord& record);

    const NTFSContext& context_;
    std::size_t count_ = 0;
    std::vector<Entry>
        entries_; ///< of the base records above 15 that have a name, or a content to save
    std::unordered_map<std::uint64_t, MFTRecord>
        whole_; ///< extensions, system files, and records with extensions
    std::unordered_map<std::uint64_t, std::vector<FNInfo>>
        otherNames_; ///< of files that other folders list too
};

/// A stream of bytes that lies in pieces on the source.
class MappedStream {
public:
    MappedStream() = default;
    explicit MappedStream(ExtentList extents);

    std::uint64_t size() const { return ends_.empty() ? 0 : ends_.back(); }
    const ExtentList& extents() const { return extents_; }
    /// The rest of the extent that byte `position` lies in; of no length at the stream's end.
    Extent at(std::uint64_t position) const;
    /// Fills `into` from byte `position` on. Holes, and what lies past the end, are zeros. False
    /// when nothing of it has a place on the source.
    bool read(DiskSource& source, std::uint64_t position, std::span<std::uint8_t> into) const;

private:
    ExtentList extents_;
    std::vector<std::uint64_t> ends_; ///< of the extents, in bytes of the stream
};

/// One NTFS volume on its source. Used by one thread at a time.
class NTFSContext {
public:
    struct Located {
        ExtentList extents;     ///< neighbours merged
        bool isComplete = true; ///< false when some of the bytes have no place on the source
    };

    NTFSContext(DiskSource& source, const NTFSGeometry& geometry)
        : source_(source)
        , geometry_(geometry)
    {
    }

    DiskSource& source() const { return source_; }
    const NTFSGeometry& geometry() const { return geometry_; }
    /// The largest size that a file can have whose clusters all lie on the volume and on the
    /// source.
    std::uint64_t capacity() const;

    /// Where the first `size` bytes in these runs lie. From byte `initSize` on they are a hole.
    Located extents(std::span<const CompressedRuns::Run> runs, std::uint64_t size,
        std::uint64_t initSize) const;

    /// No system makes longer attribute lists; what goes on behind this many bytes is not read.
    static constexpr std::uint64_t maxAttributeList = 262'144;

    /// What the record's attribute list holds. One that is not resident is read.
    Bytes attributeListOf(const MFTRecord& record) const;

    /// Finds the MFT by its own record or, where that is not to be used, by the copy in $MFTMirr.
    std::optional<MappedStream> locateMFT(std::vector<std::string>& notes) const;
    /// When cancelled, what was read so far. `progress` may be none.
    MFTRecords readAllRecords(const MappedStream& mft, WorkProgress* progress) const;
    std::unique_ptr<Volume> buildVolume(MFTRecords records, const std::string& origin) const;

private:
    std::optional<MappedStream> mapMFT(MFTRecord& record) const;

    DiskSource& source_;
    const NTFSGeometry geometry_;
};

/// What the search for lost volumes needs to know of a volume that was read.
class NTFSDeepInfo : public DeepContext {
public:
    NTFSDeepInfo(const NTFSGeometry& volumeGeometry, MappedStream volumeMFT)
        : geometry(volumeGeometry)
        , mft(std::move(volumeMFT))
    {
    }

    NTFSGeometry geometry;
    MappedStream mft;
};

/// NTFS: existing, deleted and orphaned files.
namespace NTFSParser {

/// The type of the file system that begins with these bytes; none when it is not NTFS. The first
/// 512 bytes are enough.
std::optional<FileSystemType> probe(ByteView head);

/// Where the volume begins, in bytes on the source, whose backup boot sector is this one at byte
/// `offset`: it lies behind the last sector that it counts. None when it is no boot sector of NTFS,
/// and where the volume would begin before the source.
std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset);

/// The volume that begins at byte `offset`; none when there is no NTFS volume, or its MFT cannot be
/// found. `boot`: a boot sector found elsewhere, to be used instead of the one at `offset`.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot = {});

/// What helps to tell where a volume without a boot sector lies.
struct RebuildHints {
    std::vector<NTFSGeometry> geometries;     ///< of volumes and boot sectors that were found
    std::vector<const NTFSDeepInfo*> volumes; ///< whose files are listed already
    std::vector<std::uint64_t>
        starts; ///< of volumes of any kind: this one may have been formatted over
    const std::vector<CarvedFile>& carved; ///< files found by content, ascending by offset
};

/// The volumes that MFT records (absolute offsets, ascending) belong to which no volume has: put
/// together from the records alone. Where a volume's place cannot be told, its files have names and
/// what fits in a record, and no more.
VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> records,
    const RebuildHints& hints, WorkProgress* progress);

/// Those records that belong to none of these volumes: neither to their MFTs nor to the mirrors of
/// these.
std::vector<std::uint64_t> looseRecords(
    std::span<const std::uint64_t> records, const VolumeList& volumes);

/// Whether the bytes at `at` look like an MFT record.
bool looksLikeRecord(ByteView bytes, std::int64_t at = 0);

/// Decodes a record into `record`, whatever that held. `bytes` are changed: the ends of their
/// sectors get back what the update sequence keeps of them. `number`: the record's number, where it
/// is known otherwise than by the record itself. False when it is no record.
bool parseRecord(
    std::span<std::uint8_t> bytes, std::optional<std::uint64_t> number, MFTRecord& record);

/// The extension records that an attribute list names for file names and unnamed data, each once
/// and in the list's order, `self`, the number of the record that has the list, not among them.
std::vector<FileReference> extensionsIn(ByteView attributeList, std::uint64_t self);

/// Adds what the extension holds to the record that it continues, and leaves the extension empty.
void mergeExtension(MFTRecord& record, MFTRecord& extension);

/// Whether a record is the one that an attribute list of `base` names.
bool isExtensionOf(const MFTRecord& record, FileReference reference, const MFTRecord& base);

/// Decodes a run list; the runs before whatever makes no sense. `bytes` begin with the list and end
/// where it must.
DataFragment::Runs decodeRuns(ByteView bytes);

} // namespace NTFSParser
