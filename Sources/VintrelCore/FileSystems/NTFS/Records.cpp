#include "VintrelCore/FileSystems/NTFS/Records.h"

#include "VintrelCore/FileSystems/NTFS/Layout.h"
#include "VintrelCore/FileSystems/NTFS/UpdateSequence.h"

#include <algorithm>
#include <cstddef>

namespace {

using NTFSLayout::StoredReference;

constexpr std::size_t minRecordSize = 512;
constexpr std::string_view signature = "FILE";

/// More attributes than any record has room for that a system wrote.
constexpr int maxAttributes = 256;

constexpr std::uint16_t inUseFlag = 0x0001; // of a record
constexpr std::uint16_t directoryFlag = 0x0002;
constexpr std::uint16_t compressedFlag = 0x0001; // of an attribute
constexpr std::uint16_t encryptedFlag = 0x4000;
constexpr std::uint16_t sparseFlag = 0x8000;

// The comments name the sections of the document.

/// FILE Record.
struct RecordHeader {
    std::array<std::uint8_t, 4> signature; //  0  "FILE"
    LE16 updateOffset, updateCount;  //  4, 6  the count includes the update-sequence number itself
    LE64 logSequence;                //  8
    LE16 sequence;                   // 16
    LE16 linkCount;                  // 18
    LE16 firstAttribute;             // 20
    LE16 flags;                      // 22
    LE32 bytesInUse, bytesAllocated; // 24, 28
    StoredReference base;            // 32
    LE16 nextAttributeID, padding;   // 40, 42
    LE32 number;                     // 44  only where the update sequence leaves room for it

    /// Older systems put the update sequence where the number stands now.
    bool hasNumber() const { return updateOffset >= sizeof(RecordHeader); }
};
static_assert(sizeof(RecordHeader) == 48 && offsetof(RecordHeader, base) == 32);
static_assert(sizeof(RecordHeader) == NTFSParser::recordHeaderSize);

/// Attribute Header: what all attributes begin with.
struct AttributeHeader {
    LE32 type;                //  0
    LE32 length;              //  4
    std::uint8_t nonResident; //  8
    std::uint8_t nameLength;  //  9
    LE16 nameOffset;          // 10
    LE16 flags;               // 12
    LE16 id;                  // 14
};
static_assert(sizeof(AttributeHeader) == 16);

/// Attribute Header, Resident.
struct ResidentHeader {
    AttributeHeader common;
    LE32 valueLength; // 16
    LE16 valueOffset; // 20
};
static_assert(sizeof(ResidentHeader) == 22);

/// Attribute Header, Non-Resident.
struct NonResidentHeader {
    AttributeHeader common;
    LE64 startVCN, lastVCN;              // 16, 24
    LE16 runsOffset;                     // 32
    std::uint8_t compressionUnit;        // 34  log2 of the clusters in a unit
    std::array<std::uint8_t, 5> padding; // 35
    LE64 allocatedSize;                  // 40
    LE64 dataSize;                       // 48
    LE64 initSize;                       // 56
};
static_assert(sizeof(NonResidentHeader) == 64 && offsetof(NonResidentHeader, dataSize) == 48);

/// $STANDARD_INFORMATION, as far as it is of use.
struct StandardInformation {
    LE64 created, modified, changed; //  0, 8, 16  the last one: the record itself
};

/// $FILE_NAME. The name follows.
struct FileNameValue {
    StoredReference parent;                //  0
    LE64 created, modified, changed, read; //  8, 16, 24, 32
    LE64 allocatedSize, realSize;          // 40, 48
    LE32 flags, reparseTag;                // 56, 60
    std::uint8_t nameLength;               // 64  in UTF-16 units
    std::uint8_t nameSpace;                // 65
};
static_assert(sizeof(FileNameValue) == 66 && offsetof(FileNameValue, realSize) == 48);

/// The value of a resident attribute, cut at the attribute's end; empty for one that is not
/// resident.
ByteView residentValue(ByteView attribute)
{
    const auto header = attribute.load<ResidentHeader>(0);
    if (!header || header->common.nonResident != 0)
        return {};
    return attribute.sub(header->valueOffset, std::uint32_t { header->valueLength });
}

RunList runsOf(ByteView attribute, const NonResidentHeader& header)
{
    return NTFSParser::decodeRuns(
        attribute.sub(header.runsOffset, static_cast<std::int64_t>(attribute.size())));
}

void readStandardInformation(ByteView attribute, MFTRecord& record)
{
    const auto value = residentValue(attribute);
    record.created
        = TimeConversion::fromFiletime(value.u64le(offsetof(StandardInformation, created)));
    record.modified
        = TimeConversion::fromFiletime(value.u64le(offsetof(StandardInformation, modified)));
    record.lastWrite.changed = value.u64le(offsetof(StandardInformation, changed));
}

void readAttributeList(ByteView attribute, MFTRecord& record)
{
    if (const auto header = attribute.load<NonResidentHeader>(0);
        header && header->common.nonResident != 0) {
        record.attributeListRuns = runsOf(attribute, *header);
        record.attributeListSize = header->dataSize;
    } else {
        const auto value = residentValue(attribute).span();
        record.attributeList.assign(value.begin(), value.end());
    }
}

void readFileName(ByteView attribute, MFTRecord& record)
{
    const auto value = residentValue(attribute);
    if (value.size() < sizeof(FileNameValue))
        return;
    // A value length that is too short is no reason to lose a name that the attribute holds.
    const auto whole = attribute.sub(
        value.data() - attribute.data(), static_cast<std::int64_t>(attribute.size()));
    if (auto name = NTFSParser::fileNameIn(whole))
        record.names.push_back(std::move(*name));
}

/// None for an attribute that ends before its header does.
std::optional<DataFragment> dataFragment(ByteView attribute, const AttributeHeader& common)
{
    DataFragment fragment;
    fragment.isCompressed = (common.flags & compressedFlag) != 0;
    fragment.isEncrypted = (common.flags & encryptedFlag) != 0;
    fragment.isSparse = (common.flags & sparseFlag) != 0;
    if (common.nonResident == 0) {
        const auto value = residentValue(attribute).span();
        fragment.isResident = true;
        fragment.resident.assign(value.begin(), value.end());
        fragment.dataSize = attribute.u32le(offsetof(ResidentHeader, valueLength));
        fragment.initSize = fragment.dataSize;
    } else {
        const auto header = attribute.load<NonResidentHeader>(0);
        if (!header)
            return std::nullopt;
        fragment.startVCN = header->startVCN;
        fragment.runs = runsOf(attribute, *header);
        fragment.compressionUnit = header->compressionUnit;
        fragment.allocatedSize = header->allocatedSize;
        fragment.dataSize = header->dataSize;
        fragment.initSize = header->initSize;
    }
    return fragment;
}

void readData(ByteView attribute, const AttributeHeader& common, MFTRecord& record)
{
    auto fragment = dataFragment(attribute, common);
    if (!fragment)
        return;
    if (common.nameLength == 0)
        record.data.push_back(std::move(*fragment));
    else
        record.streams.push_back(
            { attribute.utf16le(common.nameOffset, common.nameLength), std::move(*fragment) });
}

void readIndexAllocation(ByteView attribute, MFTRecord& record)
{
    const auto header = attribute.load<NonResidentHeader>(0);
    if (!header || header->common.nonResident == 0 || header->startVCN != 0)
        return;
    record.indexRuns = runsOf(attribute, *header);
}

void readReparsePoint(ByteView attribute, MFTRecord& record)
{
    const auto header = attribute.load<NonResidentHeader>(0);
    if (!header || header->common.nonResident == 0) {
        record.reparseTag = residentValue(attribute).u32le(0);
        record.packing = WOF::methodIn(residentValue(attribute));
        return;
    }
    const auto runs = runsOf(attribute, *header);
    if (header->startVCN == 0 && !runs.empty())
        record.reparseLCN = runs.front().lcn;
}

void readAttribute(ByteView attribute, const AttributeHeader& common, MFTRecord& record)
{
    switch (common.type) {
    case NTFSLayout::standardInformation:
        readStandardInformation(attribute, record);
        break;
    case NTFSLayout::attributeList:
        readAttributeList(attribute, record);
        break;
    case NTFSLayout::fileName:
        readFileName(attribute, record);
        break;
    case NTFSLayout::volumeName:
        record.volumeName = residentValue(attribute).utf16le(0, common.length / 2);
        break;
    case NTFSLayout::data:
        readData(attribute, common, record);
        break;
    case NTFSLayout::indexAllocation:
        readIndexAllocation(attribute, record);
        break;
    case NTFSLayout::reparsePoint:
        readReparsePoint(attribute, record);
        break;
    default:
        break;
    }
}

void readAttributes(ByteView bytes, const RecordHeader& header, MFTRecord& record)
{
    constexpr std::int64_t headerSize = sizeof(AttributeHeader);
    const auto size = static_cast<std::int64_t>(bytes.size());
    const std::int64_t end = std::min<std::int64_t>(size, header.bytesInUse);
    std::int64_t at = header.firstAttribute;
    for (int i = 0; i < maxAttributes && at + headerSize <= end; ++i) {
        const auto common = *bytes.load<AttributeHeader>(at);
        const std::int64_t length = common.length;
        if (common.type == NTFSLayout::endOfAttributes || length < headerSize || length > size - at)
            break;
        readAttribute(bytes.sub(at, length), common, record);
        at += length;
    }
}

} // namespace

void MFTRecord::clear()
{
    auto keptNames = std::move(names);
    auto keptData = std::move(data);
    keptNames.clear();
    keptData.clear();
    *this = {};
    names = std::move(keptNames);
    data = std::move(keptData);
}

FNInfo* MFTRecord::bestName()
{
    if (names.empty())
        return nullptr;
    const auto best = std::ranges::find_if_not(names, &FNInfo::isDOS);
    return best != names.end() ? &*best : &names.front();
}

bool MFTRecord::isTargetOf(FileReference reference) const
{
    return number == reference.number && sequenceMatches(reference.sequence, sequence, inUse);
}

bool sequenceMatches(std::uint16_t referred, std::uint16_t sequence, bool inUse)
{
    if (referred == 0 || referred == sequence)
        return true;
    const auto next = static_cast<std::uint16_t>(referred + 1);
    return !inUse && (sequence == next || (next == 0 && sequence == 1));
}

namespace NTFSParser {

std::optional<FNInfo> fileNameIn(ByteView value)
{
    const auto stored = value.load<FileNameValue>(0);
    if (!stored || stored->nameLength == 0)
        return std::nullopt;
    const auto name = value.sub(sizeof(FileNameValue), 2 * std::int64_t { stored->nameLength });
    if (name.size() < std::size_t { 2 } * stored->nameLength)
        return std::nullopt;
    return FNInfo { .parent = stored->parent,
        .name = name.utf16le(0, stored->nameLength),
        .nameSpace = stored->nameSpace,
        .created = TimeConversion::fromFiletime(stored->created),
        .modified = TimeConversion::fromFiletime(stored->modified),
        .realSize = stored->realSize };
}

bool looksLikeRecord(ByteView bytes, std::int64_t at)
{
    // Records of the two sizes that systems make: the update sequence right behind the header, with
    // a number for each sector and one of its own, then the attributes in the first sector.
    constexpr std::uint16_t minAttribute = sizeof(RecordHeader),
                            maxAttribute = updateSectorSize - 1;
    constexpr std::uint16_t minUpdates = 2, maxUpdates = 9;
    constexpr std::uint32_t usualSize = 1024, largeSize = 4096;
    const auto header = bytes.load<RecordHeader>(at);
    return header && bytes.matches(signature, at)
        && (header->updateOffset == offsetof(RecordHeader, padding)
            || header->updateOffset == sizeof(RecordHeader))
        && header->updateCount >= minUpdates && header->updateCount <= maxUpdates
        && header->firstAttribute >= minAttribute && header->firstAttribute <= maxAttribute
        && (header->bytesAllocated == usualSize || header->bytesAllocated == largeSize);
}

std::optional<RecordIdentity> identityOfRecord(ByteView header)
{
    const auto stored = header.load<RecordHeader>(0);
    if (!stored || !looksLikeRecord(header) || !stored->hasNumber())
        return std::nullopt;
    return RecordIdentity { .number = stored->number, .size = stored->bytesAllocated };
}

bool parseRecord(
    std::span<std::uint8_t> bytes, std::optional<std::uint64_t> number, MFTRecord& record)
{
    const ByteView view(bytes);
    if (bytes.size() < minRecordSize || !view.matches(signature, 0))
        return false;
    const auto header = *view.load<RecordHeader>(0);
    record.clear();
    record.fixupOK = applyUpdateSequence(bytes, header.updateOffset, header.updateCount);
    record.number = number;
    if (!number && header.hasNumber())
        record.number = header.number;
    record.inUse = (header.flags & inUseFlag) != 0;
    record.isDirectory = (header.flags & directoryFlag) != 0;
    record.sequence = header.sequence;
    record.base = header.base;
    record.lastWrite.logSequence = header.logSequence;
    readAttributes(view, header, record);
    return true;
}

} // namespace NTFSParser
