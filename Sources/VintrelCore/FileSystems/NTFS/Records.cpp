// MFT records and the attributes in them. Nothing here reads the disk.

#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <unordered_set>

namespace {

constexpr std::int64_t sectorSize = 512; // of the update sequence, whatever the disk's sectors are
constexpr std::size_t minRecordSize = 512;

/// More attributes than any record has room for that a system wrote.
constexpr int maxAttributes = 256;

/// Longer runs do not fit on any volume.
constexpr std::uint64_t runLimit = std::uint64_t { 1 } << 40;

constexpr std::uint16_t inUseFlag = 0x0001; // of a record
constexpr std::uint16_t directoryFlag = 0x0002;
constexpr std::uint16_t compressedFlag = 0x0001; // of an attribute
constexpr std::uint16_t encryptedFlag = 0x4000;
constexpr std::uint16_t sparseFlag = 0x8000;

struct StoredReference {
    LE32 numberLow;  // 0
    LE16 numberHigh; // 4
    LE16 sequence;   // 6

    operator FileReference() const
    {
        return { std::uint64_t { numberHigh } << 32 | numberLow, sequence };
    }
};
static_assert(sizeof(StoredReference) == 8);

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
};
static_assert(sizeof(RecordHeader) == 48 && offsetof(RecordHeader, base) == 32);

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

struct ResidentHeader {
    AttributeHeader common;
    LE32 valueLength; // 16
    LE16 valueOffset; // 20
};
static_assert(sizeof(ResidentHeader) == 22);

struct NonResidentHeader {
    AttributeHeader common;
    LE64 startVCN, lastVCN;              // 16, 24
    LE16 runsOffset;                     // 32
    std::uint8_t compressionUnit;        // 34
    std::array<std::uint8_t, 5> padding; // 35
    LE64 allocatedSize;                  // 40
    LE64 dataSize;                       // 48
    LE64 initSize;                       // 56
};
static_assert(sizeof(NonResidentHeader) == 64 && offsetof(NonResidentHeader, dataSize) == 48);

struct FileNameValue {
    StoredReference parent;                //  0
    LE64 created, modified, changed, read; //  8, 16, 24, 32
    LE64 allocatedSize, realSize;          // 40, 48
    LE32 flags, reparseTag;                // 56, 60
    std::uint8_t nameLength;               // 64  in UTF-16 units
    std::uint8_t nameSpace;                // 65
};
static_assert(sizeof(FileNameValue) == 66 && offsetof(FileNameValue, realSize) == 48);

struct AttributeListEntry {
    LE32 type;               //  0
    LE16 length;             //  4
    std::uint8_t nameLength; //  6
    std::uint8_t nameOffset; //  7
    LE64 startVCN;           //  8
    StoredReference record;  // 16  where the attribute is
    LE16 id;                 // 24
};
static_assert(sizeof(AttributeListEntry) == 26);

enum AttributeType : std::uint32_t {
    standardInformation = 0x10,
    attributeList = 0x20,
    fileName = 0x30,
    volumeName = 0x60,
    data = 0x80,
    indexAllocation = 0xA0,
    endOfAttributes = 0xFFFFFFFF,
};

/// Puts the ends of the sectors back in place. False when one of them does not belong to the
/// others.
bool applyFixup(std::span<std::uint8_t> bytes)
{
    const ByteView view(bytes);
    const std::int64_t offset = view.u16le(4);
    const std::int64_t count = view.u16le(6);
    const auto size = static_cast<std::int64_t>(bytes.size());
    if (count < 2 || offset + 2 * count > size)
        return false;
    const auto updateNumber = view.u16le(offset);
    bool isSound = true;
    for (std::int64_t sector = 0; sector < count - 1 && (sector + 1) * sectorSize <= size;
         ++sector) {
        const std::int64_t end = (sector + 1) * sectorSize - 2;
        isSound = isSound && view.u16le(end) == updateNumber;
        std::copy_n(bytes.begin() + offset + 2 + 2 * sector, 2, bytes.begin() + end);
    }
    return isSound;
}

/// The value of a resident attribute, cut at the attribute's end; empty for one that is not
/// resident.
ByteView residentValue(ByteView attribute)
{
    const auto header = attribute.load<ResidentHeader>(0);
    if (!header || header->common.nonResident != 0)
        return {};
    return attribute.sub(header->valueOffset, std::uint32_t { header->valueLength });
}

DataFragment::Runs runsOf(ByteView attribute, const NonResidentHeader& header)
{
    return NTFSParser::decodeRuns(
        attribute.sub(header.runsOffset, static_cast<std::int64_t>(attribute.size())));
}

void readStandardInformation(ByteView attribute, MFTRecord& record)
{
    const auto value = residentValue(attribute);
    record.created = TimeConversion::fromFiletime(value.u64le(0));
    record.modified = TimeConversion::fromFiletime(value.u64le(8));
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
    const auto stored = value.load<FileNameValue>(0);
    if (!stored || stored->nameLength == 0)
        return;
    // A value length that is too short is no reason to lose a name that the attribute holds.
    const auto name
        = attribute.sub(value.data() - attribute.data() + std::int64_t { sizeof(FileNameValue) },
            2 * std::int64_t { stored->nameLength });
    if (name.size() < std::size_t { 2 } * stored->nameLength)
        return;
    record.names.push_back({ .parent = stored->parent,
        .name = name.utf16le(0, stored->nameLength),
        .nameSpace = stored->nameSpace,
        .created = TimeConversion::fromFiletime(stored->created),
        .modified = TimeConversion::fromFiletime(stored->modified),
        .realSize = stored->realSize });
}

void readData(ByteView attribute, const AttributeHeader& common, MFTRecord& record)
{
    if (common.nameLength != 0)
        return;
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
            return;
        fragment.startVCN = header->startVCN;
        fragment.runs = runsOf(attribute, *header);
        fragment.compressionUnit = header->compressionUnit;
        fragment.allocatedSize = header->allocatedSize;
        fragment.dataSize = header->dataSize;
        fragment.initSize = header->initSize;
    }
    record.data.push_back(std::move(fragment));
}

void readIndexAllocation(ByteView attribute, MFTRecord& record)
{
    const auto header = attribute.load<NonResidentHeader>(0);
    if (!header || header->common.nonResident == 0 || header->startVCN != 0)
        return;
    const auto runs = runsOf(attribute, *header);
    if (!runs.empty())
        record.indexLCN = runs.front().lcn;
}

/// Empties a record, and keeps the room that its lists have for the next one.
void clear(MFTRecord& record)
{
    auto names = std::move(record.names);
    auto data = std::move(record.data);
    names.clear();
    data.clear();
    record = {};
    record.names = std::move(names);
    record.data = std::move(data);
}

} // namespace

FNInfo* MFTRecord::bestName()
{
    if (names.empty())
        return nullptr;
    const auto best = std::ranges::find_if_not(names, &FNInfo::isDOS);
    return best != names.end() ? &*best : &names.front();
}

bool MFTRecord::isMeantBy(FileReference reference) const
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

bool looksLikeRecord(ByteView bytes, std::int64_t at)
{
    const auto header = bytes.load<RecordHeader>(at);
    return header && bytes.matches("FILE", at)
        && (header->updateOffset == 42 || header->updateOffset == 48) && header->updateCount >= 2
        && header->updateCount <= 9 && header->firstAttribute >= 48 && header->firstAttribute <= 511
        && (header->bytesAllocated == 1024 || header->bytesAllocated == 4096);
}

bool parseRecord(
    std::span<std::uint8_t> bytes, std::optional<std::uint64_t> number, MFTRecord& record)
{
    const ByteView view(bytes);
    if (bytes.size() < minRecordSize || !view.matches("FILE", 0))
        return false;
    clear(record);
    record.fixupOK = applyFixup(bytes);

    const auto header = *view.load<RecordHeader>(0);
    record.number = number;
    if (!number && header.updateOffset >= sizeof(RecordHeader))
        record.number = header.number;
    record.inUse = (header.flags & inUseFlag) != 0;
    record.isDirectory = (header.flags & directoryFlag) != 0;
    record.sequence = header.sequence;
    record.base = header.base;

    const auto size = static_cast<std::int64_t>(bytes.size());
    const std::int64_t end = std::min<std::int64_t>(size, header.bytesInUse);
    std::int64_t at = header.firstAttribute;
    for (int i = 0;
         i < maxAttributes && at + static_cast<std::int64_t>(sizeof(AttributeHeader)) <= end; ++i) {
        const auto common = *view.load<AttributeHeader>(at);
        const std::int64_t length = common.length;
        if (common.type == endOfAttributes
            || length < static_cast<std::int64_t>(sizeof(AttributeHeader)) || length > size - at)
            break;
        const auto attribute = view.sub(at, length);
        switch (common.type) {
        case standardInformation:
            readStandardInformation(attribute, record);
            break;
        case attributeList:
            readAttributeList(attribute, record);
            break;
        case fileName:
            readFileName(attribute, record);
            break;
        case volumeName:
            record.volumeName = residentValue(attribute).utf16le(0, length / 2);
            break;
        case data:
            readData(attribute, common, record);
            break;
        case indexAllocation:
            readIndexAllocation(attribute, record);
            break;
        default:
            break;
        }
        at += length;
    }
    return true;
}

std::vector<FileReference> extensionsIn(ByteView attributeList, std::uint64_t self)
{
    std::vector<FileReference> extensions;
    std::unordered_set<std::uint64_t> seen { self };
    std::int64_t at = 0;
    while (const auto entry = attributeList.load<AttributeListEntry>(at)) {
        if (entry->length < sizeof(AttributeListEntry))
            break;
        const bool isWanted
            = entry->type == fileName || (entry->type == data && entry->nameLength == 0);
        if (const FileReference reference = entry->record;
            isWanted && seen.insert(reference.number).second)
            extensions.push_back(reference);
        at += entry->length;
    }
    return extensions;
}

bool isExtensionOf(const MFTRecord& record, FileReference reference, const MFTRecord& base)
{
    return record.isExtension() && record.isMeantBy(reference) && base.isMeantBy(record.base);
}

void mergeExtension(MFTRecord& record, MFTRecord& extension)
{
    record.fixupOK = record.fixupOK && extension.fixupOK;
    std::ranges::move(extension.names, std::back_inserter(record.names));
    std::ranges::move(extension.data, std::back_inserter(record.data));
    clear(extension);
}

DataFragment::Runs decodeRuns(ByteView bytes)
{
    DataFragment::Runs runs;
    std::int64_t lcn = 0;
    for (std::int64_t at = 0;;) {
        const auto header = bytes.u8(at); // 0, the end mark, also past the end
        const int lengthSize = header & 0x0F;
        const int offsetSize = header >> 4;
        if (header > 0x8F || lengthSize < 1 || lengthSize > 8
            || at + 1 + lengthSize + offsetSize > static_cast<std::int64_t>(bytes.size()))
            break;
        const auto clusters = bytes.uintLE(at + 1, lengthSize);
        if (clusters == 0 || clusters >= runLimit)
            break;
        if (offsetSize == 0) {
            runs.push_back({ std::nullopt, clusters });
        } else {
            // The LCN so far is not negative, so that only the sum's upper end can overflow.
            const auto delta = bytes.intLE(at + 1 + lengthSize, offsetSize);
            if (delta > std::numeric_limits<std::int64_t>::max() - lcn || lcn + delta < 0)
                break;
            lcn += delta;
            runs.push_back({ static_cast<std::uint64_t>(lcn), clusters });
        }
        at += 1 + lengthSize + offsetSize;
    }
    return runs;
}

} // namespace NTFSParser
