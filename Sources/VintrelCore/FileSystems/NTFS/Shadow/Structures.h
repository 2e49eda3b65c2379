#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

// What the system's shadow copies keep on their volume (Metz, "Volume Shadow Snapshot (VSS)
// format"). Offsets are in bytes from the start of the volume. All structures but the first one
// lie in blocks that begin with the same header and are linked to chains.

namespace NTFSShadow {

/// Shadow copies keep whole blocks of this size, at multiples of it.
inline constexpr std::uint64_t blockSize = 16'384;
/// Of a block that changed in part they keep sectors of this size.
inline constexpr std::uint64_t sectorSize = 512;

using GUID = std::array<std::uint8_t, 16>;

/// Begins the volume header and every block.
inline constexpr GUID identifier { 0x6B, 0x87, 0x08, 0x38, 0x76, 0xC1, 0x48, 0x4E, 0xB7, 0xAE, 0x04,
    0x04, 0x6E, 0x6C, 0xC7, 0x52 };

enum RecordType : std::uint32_t {
    volumeHeader = 1,
    catalog = 2,
    blockList = 3,
    bitmap = 6,
};

/// Where the volume header lies.
inline constexpr std::uint64_t volumeHeaderOffset = 0x1E00;

struct StoredVolumeHeader {
    GUID identifier;            //  0
    LE32 version, type;         // 16, 20
    std::array<LE64, 3> unused; // 24
    LE64 catalogOffset;         // 48  0: there are no shadow copies
};
static_assert(sizeof(StoredVolumeHeader) == 56);

struct BlockHeader {
    GUID identifier;             //  0
    LE32 version, type;          // 16, 20
    LE64 relativeOffset;         // 24
    LE64 offset;                 // 32  its own
    LE64 next;                   // 40  0: the last of its chain
    std::array<LE64, 10> unused; // 48
};
static_assert(sizeof(BlockHeader) == 128);

/// Two entries of the catalog describe a store: one says when it was made, the other where it lies.
enum CatalogEntryType : std::uint64_t { storeDates = 2, storePlaces = 3 };

struct StoredDates {
    LE64 type;       //  0
    LE64 volumeSize; //  8
    GUID store;      // 16
    LE64 sequence;   // 32
    LE64 flags;      // 40
    LE64 created;    // 48  FILETIME
};
struct StoredPlaces {
    LE64 type;           //  0
    LE64 blockList;      //  8
    GUID store;          // 16
    LE64 header;         // 32
    LE64 blockRanges;    // 40
    LE64 bitmap;         // 48
    LE64 file;           // 56
    LE64 allocated;      // 64
    LE64 previousBitmap; // 72
};
inline constexpr std::int64_t catalogEntrySize = 128;
static_assert(sizeof(StoredDates) == 56 && sizeof(StoredPlaces) == 80);

/// How a block is to be taken.
enum BlockFlags : std::uint32_t {
    isForwarder = 0x1, ///< its content went to another block of the volume, which is not a copy
    isOverlay = 0x2,   ///< only some of its sectors were copied
    isUnused = 0x4,
};

struct StoredBlock {
    LE64 original; //  0  the block of the volume
    LE64 relative; //  8  of a forwarder: where its content went to
    LE64 copy;     // 16
    LE32 flags;    // 24
    LE32 sectors;  // 28  of an overlay: bit n for sector n
};
static_assert(sizeof(StoredBlock) == 32);

} // namespace NTFSShadow
