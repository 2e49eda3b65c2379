#include "VintrelCore/FileSystems/NTFS/Journal.h"

#include "VintrelCore/FileSystems/NTFS/Layout.h"

#include <optional>

namespace NTFSJournal {

namespace {

using NTFSLayout::StoredReference;

constexpr std::uint32_t entryAlignment = 8;

struct EntryHeader {
    LE32 length;                     // 0
    LE16 majorVersion, minorVersion; // 4, 6
};
static_assert(sizeof(EntryHeader) == 8);

struct Entry2 {
    EntryHeader header;
    StoredReference file, parent;      //  8, 16
    std::array<std::uint8_t, 32> rest; // 24
    LE16 nameLength, nameOffset;       // 56, 58  in bytes
};
static_assert(sizeof(Entry2) == 60);

/// With references of 128 bits, of which NTFS uses the lower half.
struct Entry3 {
    EntryHeader header;
    StoredReference file, unusedFile;     //  8, 16
    StoredReference parent, unusedParent; // 24, 32
    std::array<std::uint8_t, 32> rest;    // 40
    LE16 nameLength, nameOffset;          // 72, 74
};
static_assert(sizeof(Entry3) == 76);

template <class Entry> std::optional<Change> decode(ByteView bytes)
{
    const auto entry = bytes.load<Entry>(0);
    if (!entry || entry->nameOffset < sizeof(Entry) || entry->nameLength == 0)
        return std::nullopt;
    const auto name = bytes.sub(entry->nameOffset, entry->nameLength);
    if (name.size() < entry->nameLength)
        return std::nullopt;
    return Change { entry->file, entry->parent, name.utf16le(0, entry->nameLength / 2) };
}

std::optional<Change> decodeAny(ByteView bytes, std::uint16_t version)
{
    if (version == 2)
        return decode<Entry2>(bytes);
    return version == 3 ? decode<Entry3>(bytes) : std::nullopt;
}

void forEachInPage(ByteView page, const std::function<void(Change&)>& visit)
{
    // Entries are never empty, so that the page bounds their number.
    for (std::int64_t at = 0;;) {
        const auto header = page.load<EntryHeader>(at);
        if (!header || header->length < sizeof(Entry2) || header->length % entryAlignment != 0)
            return;
        if (auto change = decodeAny(page.sub(at, header->length), header->majorVersion))
            visit(*change);
        at += header->length;
    }
}

} // namespace

void forEachChange(ByteView pages, const std::function<void(Change&)>& visit)
{
    constexpr auto size = static_cast<std::int64_t>(pageSize);
    for (std::int64_t at = 0; at < static_cast<std::int64_t>(pages.size()); at += size)
        forEachInPage(pages.sub(at, size), visit);
}

} // namespace NTFSJournal
