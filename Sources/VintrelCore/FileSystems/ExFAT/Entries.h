#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// What an exFAT directory is made of: 32-byte entries, of which several in a row, a set, describe
/// one file. As in "exFAT file system specification" (Microsoft, 2019), "Directory Structure" and
/// "Directory Entry Definitions". Nothing here reads the disk.
namespace ExFATEntries {

constexpr std::size_t entrySize = 32;

/// The first byte of an entry. Deletion clears `inUse`; entries of a set behind its first one have
/// `secondary`.
constexpr std::uint8_t endOfDirectory = 0x00;
constexpr std::uint8_t inUse = 0x80;
constexpr std::uint8_t secondary = 0x40;
constexpr std::uint8_t bitmapType = 0x81;
constexpr std::uint8_t upcaseType = 0x82; // laid out as the bitmap's entry
constexpr std::uint8_t labelType = 0x83;
constexpr std::uint8_t fileType = 0x85;
constexpr std::uint8_t volumeGUIDType = 0xA0;
constexpr std::uint8_t streamType = 0xC0;
constexpr std::uint8_t nameType = 0xC1;
constexpr std::uint8_t vendorExtensionType = 0xE0;
constexpr std::uint8_t vendorAllocationType = 0xE1;

struct BitmapEntry {
    std::uint8_t type;                     //  0
    std::uint8_t flags;                    //  1  bit 0: the second bitmap
    std::array<std::uint8_t, 18> reserved; //  2
    LE32 firstCluster;                     // 20
    LE64 size;                             // 24  in bytes
};
static_assert(sizeof(BitmapEntry) == entrySize && offsetof(BitmapEntry, size) == 24);

struct LabelEntry {
    std::uint8_t type;                  //  0
    std::uint8_t length;                //  1  units, at most 11
    std::array<std::uint8_t, 30> units; //  2  UTF-16LE; some systems use the eight bytes that are
                                        //     reserved behind the eleven units for four more
};
static_assert(sizeof(LabelEntry) == entrySize);

struct FileEntry {
    std::uint8_t type;                //  0
    std::uint8_t secondaryCount;      //  1  entries of the set behind this one
    LE16 setChecksum;                 //  2
    LE16 attributes;                  //  4  10: directory
    LE16 reserved1;                   //  6
    LE32 created, modified, accessed; //  8, 12, 16  date in the upper half, time in the lower
    std::uint8_t createdTicks, modifiedTicks; // 20, 21  10 ms each
    std::uint8_t createdOffset, modifiedOffset,
        accessedOffset;                    // 22, 23, 24  of local time from UTC
    std::array<std::uint8_t, 7> reserved2; // 25

    bool isDirectory() const { return (attributes & 0x10) != 0; }
};
static_assert(sizeof(FileEntry) == entrySize && offsetof(FileEntry, createdOffset) == 22);

struct StreamEntry {
    std::uint8_t type; //  0
    std::uint8_t
        flags; //  1  bit 1: the clusters lie in one piece, and the FAT says nothing of them
    std::uint8_t reserved1;  //  2
    std::uint8_t nameLength; //  3  units
    LE16 nameHash;           //  4
    LE16 reserved2;          //  6
    LE64 validSize;          //  8  in bytes; what follows reads as zeros
    LE32 reserved3;          // 16
    LE32 firstCluster;       // 20
    LE64 size;               // 24  in bytes

    bool isContiguous() const { return (flags & 2) != 0; }
};
static_assert(sizeof(StreamEntry) == entrySize && offsetof(StreamEntry, firstCluster) == 20);

struct NameEntry {
    std::uint8_t type;                  // 0
    std::uint8_t flags;                 // 1
    std::array<std::uint8_t, 30> units; // 2  fifteen of the name, UTF-16LE
};
static_assert(sizeof(NameEntry) == entrySize);

using RawEntry = std::array<std::uint8_t, entrySize>;

/// What a row of entries tells of one file.
struct EntrySet {
    std::optional<FileEntry> file; ///< none: overwritten; dates and attributes are lost
    StreamEntry stream;
    std::string name; ///< as much of it as is left
    bool isDeleted = false;
    bool isSound = false; ///< complete, and its checksum is right
};

/// The sum over a set's entries, as they were in use.
std::uint16_t setChecksum(const std::vector<RawEntry>& entries);

/// Puts entries together into sets, across the borders of the pieces in which a directory is read.
/// What an entry claims about others is never trusted: a set holds those that really follow.
class SetCollector {
public:
    /// Takes the next entry. Gives the set that it completes, or that ended before it.
    std::optional<EntrySet> take(const RawEntry& entry);
    /// Gives the set that is left at the end of the directory.
    std::optional<EntrySet> finish();
    /// Whether a set has begun that is not complete.
    bool isInside() const { return !entries_.empty(); }

private:
    bool belongs(const RawEntry& entry) const;
    bool isComplete() const;

    std::vector<RawEntry> entries_; // of the set at hand
};

/// Whether a set with a wrong checksum can still be one: its name is allowed, and its sizes agree.
bool isPlausible(const EntrySet& set);

/// Whether the first entries of a cluster can begin a directory, or go on in one.
bool beginsDirectory(ByteView cluster);
bool continuesDirectory(ByteView cluster);

/// Whether a sector in the middle of a directory holds entries, and nothing else.
bool holdsEntries(ByteView sector);

/// A file entry, a stream, and as many name entries as the longest name takes: in bytes.
constexpr std::int64_t maxFileSetSize = 19 * entrySize;

/// What soundSets() wants to see: a sector, and the rest of a set that begins at its end.
constexpr std::int64_t soundSetsSize = 512 + maxFileSetSize;

/// The sound sets that begin in the 512 bytes at `at`; they may end behind these. Empty where
/// anything else than entries lies there. A set whose beginning lies before is none of them.
std::vector<EntrySet> soundSets(ByteView bytes, std::int64_t at);

} // namespace ExFATEntries
