#pragma once

#include "VintrelCore/FileSystems/NTFS/BootSector.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

/// Where things lie on an NTFS volume. Sizes are in bytes.
struct NTFSGeometry {
    std::uint64_t base = 0; ///< where the volume begins on the source
    /// False: it is not known where the volume begins, and so where any cluster lies.
    bool hasPlace = true;
    std::uint64_t clusterSize = 0; ///< at most 16 MiB, not always a power of two
    std::uint32_t recordSize = 0;  ///< of an MFT record, 512 … 65,536
    /// As claimed; the largest number there is when it claims more than that.
    std::uint64_t volumeSize = 0;
    std::uint64_t mftLCN = 0;    ///< first cluster of $MFT
    std::uint64_t mirrorLCN = 0; ///< first cluster of $MFTMirr

    /// None when the boot sector is not that of an NTFS volume, or of an impossible one.
    static std::optional<NTFSGeometry> from(ByteView boot, std::uint64_t base);
    /// The same with records of this size, whatever the boot sector says of that.
    static std::optional<NTFSGeometry> withRecordSize(
        const NTFSBootSector& sector, std::uint64_t base, std::uint64_t recordSize);

    bool operator==(const NTFSGeometry&) const = default;

    /// The place of a cluster in bytes on the source; none where no number could say it.
    std::optional<std::uint64_t> offsetOf(std::uint64_t lcn) const;
    /// The size of $MFTMirr: the first records of the MFT, and at least one cluster.
    std::uint64_t mirrorSize() const;
};
