#include "VintrelCore/Scanning/Partitions.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <limits>

namespace PartitionTable {

namespace {

using Entries = std::vector<PartitionEntry>;

struct GPTHeader {
    std::array<std::uint8_t, 8> signature; //  0  "EFI PART"
    std::array<std::uint8_t, 64>
        unused;         //  8  revision, checksums, places of the headers, disk GUID
    LE64 firstEntryLBA; // 72  in sectors
    LE32 entryCount;    // 80
    LE32 entrySize;     // 84  in bytes
};
static_assert(sizeof(GPTHeader) == 88 && offsetof(GPTHeader, firstEntryLBA) == 72);

struct GPTSlot {
    std::array<std::uint8_t, 16> type; //  0  GUID; all zero: slot not used
    std::array<std::uint8_t, 16> id;   // 16  GUID
    LE64 firstLBA, lastLBA;            // 32, 40  in sectors, the last one included
    LE64 attributes;                   // 48
    std::array<std::uint8_t, 72> name; // 56  UTF-16LE
};
static_assert(sizeof(GPTSlot) == 128 && offsetof(GPTSlot, name) == 56);

struct MBRSlot {
    std::uint8_t status;                  //  0  bit 7: active
    std::array<std::uint8_t, 3> firstCHS; //  1  not used
    std::uint8_t type;                    //  4  0: slot not used
    std::array<std::uint8_t, 3> lastCHS;  //  5  not used
    LE32 firstLBA, sectorCount;           //  8, 12  in sectors
};
static_assert(sizeof(MBRSlot) == 16 && offsetof(MBRSlot, firstLBA) == 8);

struct MBRSector {
    std::array<std::uint8_t, 446> code;
    std::array<MBRSlot, 4> slots;          // 446  an EBR uses the first two
    std::array<std::uint8_t, 2> signature; // 510  55 AA
};
static_assert(sizeof(MBRSector) == 512);

/// More slots than any tool makes; a header that claims more is damaged.
constexpr std::uint32_t maxGPTEntries = 1024;
constexpr std::uint32_t minGPTEntrySize = 128;
constexpr std::uint32_t maxGPTEntrySize = 4096;
/// A chain of logical partitions that loops ends here.
constexpr int maxEBRs = 128;

constexpr std::uint8_t protectiveType
    = 0xEE; // one partition over the whole disk, so that old tools leave GPT alone

bool isExtendedType(std::uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

std::int64_t nextEntryID()
{
    static std::atomic<std::int64_t> last = 0;
    return ++last;
}

void append(Entries& entries, std::string scheme, std::string typeName, std::uint64_t offset,
    std::uint64_t size, std::string name = {})
{
    entries.push_back({ .id = nextEntryID(),
        .index = static_cast<int>(entries.size()) + 1,
        .scheme = std::move(scheme),
        .typeName = std::move(typeName),
        .offset = offset,
        .size = size,
        .name = std::move(name),
        .detected = std::nullopt });
}

Entries parseGPT(DiskSource& source, const GPTHeader& header, std::uint32_t sectorSize)
{
    Entries entries;
    const std::uint32_t count = std::min<std::uint32_t>(header.entryCount, maxGPTEntries);
    const std::uint32_t entrySize = header.entrySize;
    const std::uint64_t tableOffset = saturatingMultiply(header.firstEntryLBA, sectorSize);
    if (count == 0 || entrySize < minGPTEntrySize || entrySize > maxGPTEntrySize
        || tableOffset >= source.size())
        return entries;

    const auto bytes
        = source.read(tableOffset, std::int64_t { count } * entrySize, ReadMode::thorough);
    const ByteView table(bytes);
    for (std::int64_t i = 0; i < count; ++i) {
        const auto slot = table.load<GPTSlot>(i * entrySize);
        if (!slot || ByteView(slot->type).isAllZero() || slot->lastLBA < slot->firstLBA)
            continue;
        const std::uint64_t start = saturatingMultiply(slot->firstLBA, sectorSize);
        if (start >= source.size())
            continue;
        const std::uint64_t last = slot->lastLBA;
        const std::uint64_t sectorsToEnd
            = last == std::numeric_limits<std::uint64_t>::max() ? last : last + 1;
        const std::uint64_t end
            = std::min(source.size(), saturatingMultiply(sectorsToEnd, sectorSize));
        auto name = ByteView(slot->name).utf16le(0, 36);
        name.erase(std::min(name.find('\0'), name.size()));
        append(
            entries, "GPT", gptTypeName(guid(slot->type, 0)), start, end - start, std::move(name));
    }
    return entries;
}

Entries readGPTAt(DiskSource& source, std::uint64_t offset, std::uint32_t sectorSize)
{
    const auto sector = source.read(offset, sectorSize, ReadMode::thorough);
    const ByteView bytes(sector);
    const auto header = bytes.load<GPTHeader>(0);
    return header && bytes.matches("EFI PART", 0) ? parseGPT(source, *header, sectorSize)
                                                  : Entries {};
}

Entries readGPT(DiskSource& source, std::vector<std::string>& notes)
{
    // An image may have been made from a disk with other sectors than an image file's 512 bytes.
    std::vector<std::uint32_t> sectorSizes { source.sectorSize() };
    for (const std::uint32_t other : { 512u, 4096u })
        if (other != source.sectorSize())
            sectorSizes.push_back(other);

    for (const auto sectorSize : sectorSizes)
        if (auto entries = readGPTAt(source, sectorSize, sectorSize); !entries.empty())
            return entries;
    for (const auto sectorSize : sectorSizes) {
        if (source.size() < 2 * std::uint64_t { sectorSize })
            continue;
        const std::uint64_t lastSector = source.size() / sectorSize - 1;
        if (auto entries = readGPTAt(source, lastSector * sectorSize, sectorSize);
            !entries.empty()) {
            notes.emplace_back(
                "Den primære GPT-header var beskadiget – backup-headeren blev brugt.");
            return entries;
        }
    }
    return {};
}

std::optional<MBRSector> readMBRSector(DiskSource& source, std::uint64_t offset)
{
    const auto bytes = source.read(offset, sizeof(MBRSector), ReadMode::thorough);
    const auto sector = ByteView(bytes).load<MBRSector>(0);
    return sector && sector->signature == std::array<std::uint8_t, 2> { 0x55, 0xAA } ? sector
                                                                                     : std::nullopt;
}

void appendMBR(Entries& entries, DiskSource& source, const char* scheme, const MBRSlot& slot,
    std::uint64_t lba, std::uint64_t unit)
{
    const std::uint64_t start = lba * unit;
    if (start < source.size())
        append(entries, scheme, mbrTypeName(slot.type), start,
            std::min(source.size() - start, slot.sectorCount * unit));
}

/// Follows the chain of EBRs whose first one, and zero point for the links, lies at sector
/// `container`.
void readLogical(Entries& entries, DiskSource& source, std::uint64_t container, std::uint64_t unit)
{
    std::uint64_t current = container;
    for (int link = 0; link < maxEBRs; ++link) {
        const auto sector = readMBRSector(source, current * unit);
        if (!sector)
            return;
        const auto& [logical, next, unused1, unused2] = sector->slots;
        if (logical.type != 0 && logical.sectorCount != 0)
            appendMBR(entries, source, "MBR (logisk)", logical, current + logical.firstLBA, unit);
        if (next.firstLBA == 0 || !isExtendedType(next.type))
            return;
        current = container + next.firstLBA;
    }
}

Entries readMBR(DiskSource& source)
{
    const auto sector = readMBRSector(source, 0);
    if (!sector)
        return {};
    const std::uint64_t unit = source.sectorSize() == 4096 ? 4096 : 512;
    Entries entries;
    std::vector<std::uint64_t> containers; // in sectors
    for (const auto& slot : sector->slots) {
        if ((slot.status & 0x7F) != 0 || slot.type == 0 || slot.sectorCount == 0)
            continue;
        if (slot.type == protectiveType)
            return {}; // a GPT disk whose GPT is gone: this slot says nothing about it
        if (!isExtendedType(slot.type))
            appendMBR(entries, source, "MBR", slot, slot.firstLBA, unit);
        else if (slot.firstLBA * unit < source.size())
            containers.push_back(slot.firstLBA);
    }
    for (const auto container : containers)
        readLogical(entries, source, container, unit);
    return entries;
}

PartitionLayout probed(
    DiskSource& source, std::string scheme, Entries entries, std::vector<std::string> notes)
{
    for (auto& entry : entries)
        entry.detected = FSProbe::detect(source, entry.offset);
    return { std::move(scheme), std::move(entries), std::move(notes) };
}

} // namespace

PartitionLayout read(DiskSource& source)
{
    std::vector<std::string> notes;
    if (auto entries = readGPT(source, notes); !entries.empty())
        return probed(source, "GPT", std::move(entries), std::move(notes));

    // Before MBR: a FAT or NTFS boot sector bears the MBR's signature, and its code can look like
    // partition slots.
    if (const auto type = FSProbe::detect(source, 0)) {
        Entries entries;
        append(entries, "Ingen", "Hele disken", 0, source.size());
        entries.front().detected = type;
        return { "Ingen partitionstabel", std::move(entries), std::move(notes) };
    }

    if (auto entries = readMBR(source); !entries.empty())
        return probed(source, "MBR", std::move(entries), std::move(notes));
    notes.emplace_back(
        "Der blev ikke fundet nogen gyldig partitionstabel. Brug dyb scanning for at finde tabte "
        "partitioner.");
    return { "Ukendt", {}, std::move(notes) };
}

std::string guid(ByteView bytes, std::int64_t at)
{
    // The position of each byte in the text; -1 is a hyphen.
    constexpr int order[]
        = { 3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15 };
    std::string text;
    for (const int position : order) {
        if (position < 0) {
            text += '-';
            continue;
        }
        text += Text::hex(bytes.u8(at + position), 2);
    }
    return text;
}

std::string gptTypeName(std::string_view guid)
{
    constexpr struct {
        std::string_view guid, name;
    } types[] = {
        { "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basisdata" },
        { "48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+" },
        { "7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS" },
        { "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI-system" },
        { "E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserveret" },
        { "DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows gendannelse" },
        { "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux" },
        { "426F6F74-0000-11AA-AA11-00306543ECAC", "Apple Boot" },
        { "52637672-7900-11AA-AA11-00306543ECAC", "Apple Recovery" },
        { "69646961-6700-11AA-AA11-00306543ECAC", "Apple APFS ISC" },
    };
    for (const auto& type : types)
        if (type.guid == guid)
            return std::string(type.name);
    return "GPT " + std::string(guid.substr(0, 8));
}

std::string mbrTypeName(std::uint8_t type)
{
    constexpr struct {
        std::uint8_t type;
        std::string_view name;
    } types[] = {
        { 0x01, "FAT12" },
        { 0x04, "FAT16" },
        { 0x06, "FAT16" },
        { 0x07, "NTFS/exFAT" },
        { 0x0B, "FAT32" },
        { 0x0C, "FAT32" },
        { 0x0E, "FAT16" },
        { 0x17, "NTFS (skjult)" },
        { 0x1B, "FAT32 (skjult)" },
        { 0x1C, "FAT32 (skjult)" },
        { 0x27, "Windows gendannelse" },
        { 0x82, "Linux swap" },
        { 0x83, "Linux" },
        { 0xAB, "Apple Boot" },
        { 0xAF, "Apple HFS+" },
        { 0xEE, "GPT-beskyttelse" },
    };
    for (const auto& row : types)
        if (row.type == type)
            return std::string(row.name);
    return "Type 0x" + Text::hex(type, 2);
}

} // namespace PartitionTable
