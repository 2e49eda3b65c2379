#include "VintrelCore/Scanning/MBR.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <set>

namespace {

struct Slot {
    std::uint8_t status;                  //  0  bit 7: active
    std::array<std::uint8_t, 3> firstCHS; //  1  not used
    std::uint8_t type;                    //  4  0: slot not used
    std::array<std::uint8_t, 3> lastCHS;  //  5  not used
    LE32 firstLBA, sectorCount;           //  8, 12  in sectors
};
static_assert(sizeof(Slot) == 16 && offsetof(Slot, firstLBA) == 8);

struct Sector {
    std::array<std::uint8_t, 446> code;
    std::array<Slot, 4> slots;             // 446
    std::array<std::uint8_t, 2> signature; // 510  55 AA
};
static_assert(sizeof(Sector) == 512);

/// So many EBRs are read of a chain; one that loops ends here at the latest.
constexpr std::size_t maxEBRs = 128;

constexpr std::uint8_t protectiveType
    = 0xEE; // one partition over the whole disk, so that old tools leave GPT alone

bool isExtended(const Slot& slot)
{
    return slot.type == 0x05 || slot.type == 0x0F || slot.type == 0x85;
}

bool isUsed(const Slot& slot) { return slot.type != 0 && slot.sectorCount != 0; }

class Reader {
public:
    Reader(DiskSource& source, std::uint64_t unit)
        : source_(source)
        , unit_(unit)
    {
    }

    std::vector<PartitionEntry> read();

private:
    using Slots = std::array<Slot, 4>;

    std::optional<Slots> slotsAt(std::uint64_t lba);
    void append(const char* scheme, const Slot& slot, std::uint64_t lba);
    void appendLogical(const Slot& slot, std::uint64_t lba);
    void appendRecognised(const Slot& slot, std::uint64_t lba);
    void followChain(std::uint64_t container);
    void searchOtherSlots(std::uint64_t container);

    DiskSource& source_;
    const std::uint64_t unit_;
    std::vector<PartitionEntry> entries_;
    std::set<std::uint64_t> logicalStarts_; // in bytes
};

std::optional<Reader::Slots> Reader::slotsAt(std::uint64_t lba)
{
    const auto bytes = source_.read(lba * unit_, sizeof(Sector), ReadMode::thorough);
    const auto sector = ByteView(bytes).load<Sector>(0);
    return sector && sector->signature == std::array<std::uint8_t, 2> { 0x55, 0xAA }
        ? std::optional(sector->slots)
        : std::nullopt;
}

void Reader::append(const char* scheme, const Slot& slot, std::uint64_t lba)
{
    const std::uint64_t start = lba * unit_;
    if (start >= source_.size())
        return;
    PartitionEntry entry;
    entry.scheme = scheme;
    entry.typeName = PartitionTable::mbrTypeName(slot.type);
    entry.offset = start;
    entry.size = std::min(source_.size() - start, slot.sectorCount * unit_);
    entries_.push_back(std::move(entry));
}

void Reader::appendLogical(const Slot& slot, std::uint64_t lba)
{
    if (logicalStarts_.insert(lba * unit_).second)
        append("MBR (logisk)", slot, lba);
}

void Reader::appendRecognised(const Slot& slot, std::uint64_t lba)
{
    if (FSProbe::detect(source_, lba * unit_))
        appendLogical(slot, lba);
}

/// The chain as it should be: each EBR, the first of which lies at sector `container`, has its
/// partition in the first slot and the link to the next EBR in the second.
void Reader::followChain(std::uint64_t container)
{
    std::set<std::uint64_t> passed;
    for (std::uint64_t current = container;
         passed.size() < maxEBRs && passed.insert(current).second;) {
        const auto slots = slotsAt(current);
        if (!slots)
            return;
        const auto& [logical, next, unused1, unused2] = *slots;
        if (isUsed(logical))
            appendLogical(logical, current + logical.firstLBA);
        if (next.firstLBA == 0 || !isExtended(next))
            return;
        current = container + next.firstLBA;
    }
}

/// The same EBRs, and those that only a slot of another place links to: some partitioning tools use
/// any slot for either purpose. Where there is no volume, such a slot is what was left in it.
void Reader::searchOtherSlots(std::uint64_t container)
{
    std::vector<std::uint64_t> places { container };
    for (std::size_t i = 0; i < places.size(); ++i) {
        const std::uint64_t current = places[i];
        const auto slots = slotsAt(current);
        if (!slots)
            continue;
        for (const auto& slot : *slots) {
            if (!isExtended(slot)) {
                if (isUsed(slot))
                    appendRecognised(slot, current + slot.firstLBA);
                continue;
            }
            const std::uint64_t next = container + slot.firstLBA;
            if (places.size() < maxEBRs && std::ranges::find(places, next) == places.end())
                places.push_back(next);
        }
    }
}

std::vector<PartitionEntry> Reader::read()
{
    const auto slots = slotsAt(0);
    if (!slots)
        return {};
    std::vector<std::uint64_t> containers; // in sectors
    for (const auto& slot : *slots) {
        if ((slot.status & 0x7F) != 0 || !isUsed(slot))
            continue;
        if (slot.type == protectiveType)
            return {}; // a GPT disk whose GPT is gone: this slot says nothing about it
        if (!isExtended(slot))
            append("MBR", slot, slot.firstLBA);
        else if (slot.firstLBA * unit_ < source_.size())
            containers.push_back(slot.firstLBA);
    }
    for (const auto container : containers)
        followChain(container);
    for (const auto container : containers)
        searchOtherSlots(container);
    return std::move(entries_);
}

} // namespace

std::vector<PartitionEntry> MBR::read(DiskSource& source, std::uint64_t unit)
{
    return Reader(source, unit).read();
}
