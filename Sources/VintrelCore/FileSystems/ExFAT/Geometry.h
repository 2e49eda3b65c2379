#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"

#include <cstdint>
#include <optional>

struct ExFATBootSector;

/// Where things lie on an exFAT volume, as its boot sector says. Offsets are absolute on the
/// source, sizes in bytes.
struct ExFATGeometry {
    static constexpr int maxClusterShift = 25; ///< clusters of 32 MiB
    static constexpr std::uint64_t maxClusters = 0xFFFFFFF5;

    std::uint64_t fatOffset = 0; ///< of the FAT in use
    std::uint64_t fatSize = 0;
    ClusterHeap heap;
    std::uint32_t rootCluster = 0;
    std::uint64_t volumeSize = 0;
    int activeFAT = 0; ///< 1: the second FAT and the second allocation bitmap are the ones in use

    /// None when the volume would be impossible. `base`: where the volume begins on the source; the
    /// boot sector's own idea of that is not asked, since images of one partition keep the disk's.
    static std::optional<ExFATGeometry> from(const ExFATBootSector& boot, std::uint64_t base);
};
