#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// What a FAT directory is made of: 32-byte entries, and the names that they spell. As in
/// "Microsoft FAT32 File System Specification" 1.03 (fatgen103), "FAT Directory Structure" and "FAT
/// Long Directory Entries". Nothing here reads the disk.
namespace FATEntries {

constexpr std::size_t entrySize = 32;
constexpr std::int64_t directorySectorSize = 512; ///< so much of a directory is judged at a time

constexpr std::uint8_t endOfDirectory
    = 0x00; // as first byte of an entry: nothing but unused entries follows
constexpr std::uint8_t deletedMark = 0xE5; // as first byte of an entry
constexpr std::uint8_t escapedE5
    = 0x05; // as first byte of a name: the name begins with a real 0xE5
constexpr std::uint8_t volumeLabelFlag = 0x08; // attributes
constexpr std::uint8_t directoryFlag = 0x10;
constexpr std::uint8_t longNameAttributes = 0x0F;

/// Eight bytes of base and three of extension, padded with blanks, in the code page of the system
/// that wrote them.
using ShortName = std::array<std::uint8_t, 11>;

constexpr ShortName dotName { '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ' };
constexpr ShortName dotDotName { '.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ' };

struct ShortEntry {
    ShortName name;                  //  0
    std::uint8_t attributes;         // 11
    std::uint8_t caseFlags;          // 12  08: base in lower case, 10: extension
    std::uint8_t creationTicks;      // 13  10 ms each, 0 … 199
    LE16 creationTime, creationDate; // 14, 16
    LE16 accessDate;                 // 18
    LE16 firstClusterHigh;           // 20  FAT32 only
    LE16 modificationTime, modificationDate, firstClusterLow; // 22, 24, 26
    LE32 size;                                                // 28  in bytes
};
static_assert(sizeof(ShortEntry) == entrySize && offsetof(ShortEntry, modificationTime) == 22);

/// Thirteen units of a long name. The pieces stand before their short entry, the last one first.
struct LongNamePiece {
    std::uint8_t order;         //  0  from 1; 40: last piece; E5: deleted
    std::array<LE16, 5> units1; //  1  UTF-16; 0000 ends the name, FFFF fills up
    std::uint8_t attributes;    // 11  0F
    std::uint8_t type;          // 12  0
    std::uint8_t checksum;      // 13  of the short name
    std::array<LE16, 6> units2; // 14
    LE16 firstCluster;          // 26  0
    std::array<LE16, 2> units3; // 28

    bool isDeleted() const { return order == deletedMark; }
    bool isLast() const { return (order & 0x40) != 0 && !isDeleted(); }
    int sequence() const { return order & 0x1F; }
    /// Appends its part of the name.
    void appendTo(std::u16string& name) const;
};
static_assert(sizeof(LongNamePiece) == entrySize && offsetof(LongNamePiece, units3) == 28);

/// Five bits number the pieces. A longer row of them, as deleted entries can form, is no name.
constexpr std::size_t maxPieces = 31;

std::uint8_t checksum(const ShortName& name);

/// The name as shown. Of a deleted entry the first character is lost; "_" stands in its place.
std::string formatShortName(const ShortName& name, std::uint8_t caseFlags, bool isDeleted);

/// The long name that the pieces, in the order of the disk, spell for the short entry `stored` (its
/// bytes as they lie on the disk). None when they do not belong to it.
std::optional<std::string> assembleLongName(
    const std::vector<LongNamePiece>& pieces, const ShortName& stored, bool isDeleted);

/// Whether the bytes can be a short name. Of a deleted entry the first one is not looked at.
bool isPlausible(const ShortName& name, bool isDeleted);

/// What a short entry shows without its name: its first letter, its attributes, and the part of a
/// second at which it was made.
inline bool mayBeShortEntry(std::uint8_t letter, std::uint8_t attributes, std::uint8_t ticks)
{
    const bool startsWell
        = letter == escapedE5 || letter == deletedMark || (letter >= 0x21 && letter <= 0x7E);
    return startsWell && attributes <= 63 && ticks <= 199;
}

/// Whether bytes of a directory can be this short entry. Less is forbidden here than in a name that
/// is listed: this test meets sectors of every kind and must not lose a true one.
inline bool canBeShortEntry(const ShortEntry& entry)
{
    constexpr std::string_view forbidden = "\"*/:<>?\\|";
    return mayBeShortEntry(entry.name[0], entry.attributes, entry.creationTicks)
        && std::ranges::all_of(std::span(entry.name).subspan(1), [&](std::uint8_t byte) {
               return byte >= 0x20
                   && forbidden.find(static_cast<char>(byte)) == std::string_view::npos;
           });
}

/// The number as FAT32 keeps it; on FAT12 and FAT16 the upper half is 0, or means something else.
std::uint32_t firstCluster(const ShortEntry& entry);

/// Whether an entry is a folder's, and neither "." nor "..".
bool isSubfolder(const ShortEntry& entry);

/// Calls `visit(entry)` for the short entries before the end of the directory.
template <class Visit> void forEachEntry(ByteView entries, Visit visit)
{
    for (std::int64_t at = 0; const auto entry = entries.load<ShortEntry>(at); at += entrySize) {
        if (entry->name[0] == endOfDirectory)
            return;
        if (entry->attributes != longNameAttributes)
            visit(*entry);
    }
}

/// The cluster that a directory's first sector says it lies in; none when no directory begins here.
std::optional<std::uint32_t> ownCluster(ByteView sector);

/// Whether a sector holds entries and nothing else, from its beginning on. As few as one will do:
/// only for places where a directory is to be expected.
bool continuesDirectory(ByteView sector);

/// Whether a sector holds pieces of a long name and nothing else.
bool holdsNamePieces(ByteView sector);

} // namespace FATEntries
