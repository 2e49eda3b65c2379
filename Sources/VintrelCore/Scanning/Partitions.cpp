#include "VintrelCore/Scanning/Partitions.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Scanning/MBR.h"

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

/// More slots than any tool makes; a header that claims more is damaged.
constexpr std::uint32_t maxGPTEntries = 1024;
constexpr std::uint32_t minGPTEntrySize = 128;
constexpr std::uint32_t maxGPTEntrySize = 4096;
std::int64_t nextEntryID()
{
    static std::atomic<std::int64_t> last = 0;
    return ++last;
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
        PartitionEntry entry;
        entry.scheme = "GPT";
        entry.typeName = gptTypeName(guid(slot->type, 0));
        entry.offset = start;
        entry.size = end - start;
        entry.name = std::move(name);
        entries.push_back(std::move(entry));
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

/// Gives the entries their numbers and probes what lies in each.
Entries probed(DiskSource& source, Entries entries)
{
    for (int index = 0; auto& entry : entries) {
        entry.id = nextEntryID();
        entry.index = ++index;
        entry.detected = FSProbe::detect(source, entry.offset);
    }
    return entries;
}

bool isRecognised(const PartitionEntry& entry) { return entry.detected.has_value(); }

/// The partitions of an MBR in the source's own sectors, or, where these lead to no volume, in the
/// others: an image may have been made from a disk with other sectors, and adapters show a disk
/// with others than it was partitioned with.
Entries readMBR(DiskSource& source, std::vector<std::string>& notes)
{
    const std::uint64_t unit = source.sectorSize() == 4096 ? 4096 : 512;
    auto entries = probed(source, MBR::read(source, unit));
    if (std::ranges::any_of(entries, isRecognised))
        return entries;
    const std::uint64_t otherUnit = unit == 512 ? 4096 : 512;
    auto others = probed(source, MBR::read(source, otherUnit));
    if (std::ranges::none_of(others, isRecognised))
        return entries;
    notes.push_back("Partitionstabellen er læst med sektorer på " + std::to_string(otherUnit)
        + " byte; kun der giver den filsystemer.");
    return others;
}

/// The kinds of file systems that an MBR leads to, each once, in a list for the user. Empty when
/// there are none besides one that begins with the MBR's own sector, and encrypted volumes, which
/// no scan reads.
std::string fileSystemsByMBR(DiskSource& source)
{
    std::vector<std::string> unused;
    std::string list;
    for (const auto& entry : readMBR(source, unused)) {
        if (!entry.detected || entry.detected == FileSystemType::unknown || entry.offset == 0)
            continue;
        const auto name = displayName(*entry.detected);
        if (list.find(name) == std::string::npos)
            list.append(list.empty() ? "" : ", ").append(name);
    }
    return list;
}

} // namespace

PartitionLayout read(DiskSource& source)
{
    PartitionLayout layout;
    auto& [scheme, entries, notes] = layout;
    entries = probed(source, readGPT(source, notes));
    if (!entries.empty()) {
        scheme = "GPT";
        // Of a table that was formatted over, the backup at the end of the disk is left.
        if (!notes.empty() || std::ranges::none_of(entries, isRecognised))
            if (const auto type = FSProbe::detect(source, 0);
                type && type != FileSystemType::unknown)
                notes.push_back("Disken begynder også med et " + std::string(displayName(*type))
                    + "-filsystem; det vises kun ved dyb scanning.");
        return layout;
    }

    // Before MBR: a FAT or NTFS boot sector bears the MBR's signature, and its code can look like
    // partition slots.
    if (FSProbe::detect(source, 0)) {
        scheme = "Ingen partitionstabel";
        PartitionEntry whole;
        whole.scheme = "Ingen";
        whole.typeName = "Hele disken";
        whole.size = source.size();
        entries = probed(source, { std::move(whole) });
        if (const auto others = fileSystemsByMBR(source); !others.empty())
            notes.push_back("Disken har også en partitionstabel med filsystemer (" + others
                + "); de vises kun ved dyb scanning.");
        return layout;
    }

    entries = readMBR(source, notes);
    scheme = entries.empty() ? "Ukendt" : "MBR";
    if (entries.empty())
        notes.emplace_back(
            "Der blev ikke fundet nogen gyldig partitionstabel. Brug dyb scanning for at finde "
            "tabte partitioner.");
    return layout;
}

} // namespace PartitionTable
