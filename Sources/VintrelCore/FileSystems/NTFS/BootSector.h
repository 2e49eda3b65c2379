#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

/// What the boot sector of an NTFS volume says. Its layout is that of $Boot in the "NTFS
/// Documentation" of the Linux-NTFS project (Russon, Fledel). Fields behind the end of a sector
/// that was cut short are 0.
struct NTFSBootSector {
    std::uint64_t bytesPerSector = 0;    ///< 512, 1024, 2048 or 4096
    std::uint64_t sectorsPerCluster = 0; ///< 0: a size that no volume has
    std::uint64_t totalSectors = 0;      ///< without the one that holds the backup of this sector
    std::uint64_t mftLCN = 0;            ///< first cluster of $MFT
    std::uint64_t mirrorLCN = 0;         ///< first cluster of $MFTMirr
    std::uint64_t recordSize = 0;        ///< of an MFT record, in bytes; 0: none that is possible

    /// None when the sector does not begin an NTFS volume: the system's name or the size of a
    /// sector is another. The mark 55 AA at the end is not asked for, because volumes without it
    /// are read by other systems too.
    static std::optional<NTFSBootSector> from(ByteView sector);
};
