#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

/// The main boot sector of an exFAT volume, as in "exFAT file system specification" (Microsoft,
/// 2019), "Main and Backup Boot Sector Sub-regions". Everything is little-endian.
struct ExFATBootSector {
    std::array<std::uint8_t, 3> jump;      //   0
    std::array<std::uint8_t, 8> name;      //   3  "EXFAT   "
    std::array<std::uint8_t, 53> zeros;    //  11  where FAT has its fields
    LE64 partitionOffset;                  //  64  in sectors; not used
    LE64 volumeLength;                     //  72  in sectors
    LE32 fatOffset, fatLength;             //  80, 84  in sectors
    LE32 heapOffset;                       //  88  in sectors
    LE32 clusterCount;                     //  92
    LE32 rootCluster;                      //  96
    LE32 serialNumber;                     // 100
    LE16 revision;                         // 104
    LE16 flags;                            // 106  bit 0: the second FAT is in use
    std::uint8_t bytesPerSectorShift;      // 108  9 … 12
    std::uint8_t sectorsPerClusterShift;   // 109  with the former at most 25
    std::uint8_t fatCount;                 // 110  1 or 2
    std::uint8_t driveNumber;              // 111
    std::uint8_t percentInUse;             // 112
    std::array<std::uint8_t, 7> reserved;  // 113
    std::array<std::uint8_t, 390> program; // 120
    std::array<std::uint8_t, 2> signature; // 510  55 AA; not asked for, the name says enough

    /// Where the backup of the boot sector lies, in sectors from the volume's start.
    static constexpr std::uint64_t backupSector = 12;

    /// The boot sector that the bytes begin with; none where no exFAT volume begins, or where they
    /// are fewer than a sector.
    static std::optional<ExFATBootSector> from(ByteView head);

    bool usesSecondFAT() const { return (flags & 1) != 0 && fatCount == 2; }
};
static_assert(sizeof(ExFATBootSector) == 512 && offsetof(ExFATBootSector, partitionOffset) == 64
    && offsetof(ExFATBootSector, flags) == 106 && offsetof(ExFATBootSector, fatCount) == 110
    && offsetof(ExFATBootSector, signature) == 510);
