#include "VintrelCore/FileSystems/ExFAT/Entries.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace ExFATEntries {

namespace {

constexpr std::size_t unitsPerEntry = 15;
constexpr std::size_t maxSecondaries = 255; // what the count's one byte can say

std::uint8_t typeOf(const RawEntry& entry) { return entry[0] | inUse; }
bool isInUse(const RawEntry& entry) { return (entry[0] & inUse) != 0; }

/// The entry of a set that holds its stream: the second one, or the first where the file entry is
/// lost.
const RawEntry* streamOf(const std::vector<RawEntry>& entries)
{
    for (const auto& entry : entries)
        if (typeOf(entry) == streamType)
            return &entry;
    return nullptr;
}

std::string nameOf(const std::vector<RawEntry>& entries, std::size_t length)
{
    std::u16string units;
    for (const auto& entry : entries) {
        if (typeOf(entry) != nameType)
            continue;
        const auto piece = std::bit_cast<NameEntry>(entry);
        const ByteView view(piece.units);
        for (std::size_t i = 0; i < unitsPerEntry && units.size() < length; ++i)
            units += static_cast<char16_t>(view.u16le(static_cast<std::int64_t>(2 * i)));
    }
    units.erase(std::min(units.find(u'\0'), units.size()));
    return Unicode::fromUTF16(units);
}

std::size_t nameEntriesFor(std::size_t length)
{
    return (length + unitsPerEntry - 1) / unitsPerEntry;
}

/// Whether an entry can lie in a directory.
bool isKnownType(std::uint8_t type)
{
    switch (type | inUse) {
    case bitmapType:
    case upcaseType:
    case labelType:
    case fileType:
    case volumeGUIDType:
    case streamType:
    case nameType:
    case vendorExtensionType:
    case vendorAllocationType:
        return true;
    default:
        return false;
    }
}

} // namespace

std::uint16_t setChecksum(const std::vector<RawEntry>& entries)
{
    std::uint16_t sum = 0;
    for (std::size_t number = 0; number < entries.size(); ++number) {
        for (std::size_t at = 0; at < entrySize; ++at) {
            const bool isChecksum = at - offsetof(FileEntry, setChecksum) < sizeof(LE16);
            if (number == 0 && isChecksum)
                continue;
            const std::uint8_t byte = at == 0 ? typeOf(entries[number]) : entries[number][at];
            sum = static_cast<std::uint16_t>(std::rotr(sum, 1) + byte);
        }
    }
    return sum;
}

std::optional<EntrySet> SetCollector::take(const RawEntry& entry)
{
    if (belongs(entry)) {
        entries_.push_back(entry);
        return isComplete() ? finish() : std::nullopt;
    }
    auto ended = finish();
    // A stream without its file entry begins what is left of an overwritten set.
    if (typeOf(entry) == fileType || typeOf(entry) == streamType)
        entries_.push_back(entry);
    return ended;
}

bool SetCollector::belongs(const RawEntry& entry) const
{
    if (entries_.empty() || (entry[0] & secondary) == 0
        || isInUse(entry) != isInUse(entries_.front()) || entries_.size() > maxSecondaries)
        return false;
    return (typeOf(entry) == streamType)
        == (streamOf(entries_) == nullptr); // one stream, and before all else
}

bool SetCollector::isComplete() const
{
    const auto* const stream = streamOf(entries_);
    if (stream == nullptr)
        return false;
    const auto names = static_cast<std::size_t>(std::ranges::count_if(
        entries_, [](const RawEntry& entry) { return typeOf(entry) == nameType; }));
    if (names < nameEntriesFor(std::bit_cast<StreamEntry>(*stream).nameLength))
        return false;
    return typeOf(entries_.front()) != fileType
        || entries_.size() > std::bit_cast<FileEntry>(entries_.front()).secondaryCount;
}

std::optional<EntrySet> SetCollector::finish()
{
    const auto entries = std::exchange(entries_, {});
    const auto* const stream = streamOf(entries);
    if (stream == nullptr)
        return std::nullopt;
    EntrySet set { .file = std::nullopt,
        .stream = std::bit_cast<StreamEntry>(*stream),
        .name = nameOf(entries, std::bit_cast<StreamEntry>(*stream).nameLength),
        .isDeleted = !isInUse(entries.front()),
        .isSound = false };
    if (typeOf(entries.front()) == fileType) {
        set.file = std::bit_cast<FileEntry>(entries.front());
        set.isSound = entries.size() == std::size_t { set.file->secondaryCount } + 1
            && !set.name.empty() && setChecksum(entries) == set.file->setChecksum;
    }
    return set;
}

bool isPlausible(const EntrySet& set)
{
    constexpr std::string_view forbidden = "\"*/:<>?\\|";
    const bool isNameAllowed
        = !set.name.empty() && std::ranges::all_of(set.name, [&](char character) {
              return static_cast<unsigned char>(character) >= 0x20
                  && forbidden.find(character) == std::string_view::npos;
          });
    const bool areSizesPossible = set.stream.validSize <= set.stream.size
        && (set.stream.size == 0) == (set.stream.firstCluster == 0);
    return isNameAllowed && areSizesPossible && (!set.file || set.file->attributes <= 0x3F);
}

bool beginsDirectory(ByteView cluster)
{
    if (cluster.u8(0) == endOfDirectory)
        return cluster.isAllZero(0, entrySize); // an empty one
    return (cluster.u8(0) | inUse) == fileType && (cluster.u8(entrySize) | inUse) == streamType;
}

bool continuesDirectory(ByteView cluster)
{
    const auto first = static_cast<std::uint8_t>(cluster.u8(0) | inUse);
    return beginsDirectory(cluster) || first == streamType || first == nameType
        || first == fileType;
}

bool holdsEntries(ByteView sector)
{
    std::int64_t at = 0;
    while (const auto entry = sector.load<RawEntry>(at)) {
        if ((*entry)[0] == endOfDirectory)
            return at > 0 && sector.isAllZero(at);
        if (!isKnownType((*entry)[0]))
            return false;
        at += entrySize;
    }
    return true;
}

std::vector<EntrySet> soundSets(ByteView bytes, std::int64_t at)
{
    constexpr std::int64_t sectorSize = 512;
    const auto window = bytes.sub(at, sectorSize + maxFileSetSize);
    std::vector<EntrySet> sets;
    if (!isKnownType(window.u8(0))
        || (window.u8(entrySize) != endOfDirectory && !isKnownType(window.u8(entrySize))))
        return sets; // nearly every sector that holds something else
    SetCollector collector;
    for (std::int64_t place = 0; const auto entry = window.load<RawEntry>(place);
         place += entrySize) {
        const bool isInSector = place < sectorSize;
        if ((*entry)[0] == endOfDirectory || (!isInSector && !collector.isInside()))
            break;
        if (!isKnownType((*entry)[0])) {
            if (isInSector)
                sets.clear();
            break;
        }
        if (!isInSector && ((*entry)[0] & secondary) == 0)
            break; // the next sector's sets are its own
        if (auto set = collector.take(*entry); set && set->isSound)
            sets.push_back(std::move(*set));
    }
    return sets;
}

} // namespace ExFATEntries
