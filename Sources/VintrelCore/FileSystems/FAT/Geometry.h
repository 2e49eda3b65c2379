#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <optional>
#include <string>

struct FATBootSector;

/// Where things lie on a FAT volume, as its boot sector says. Offsets are absolute on the source,
/// sizes in bytes.
struct FATGeometry {
    /// The top four bits of a FAT32 cluster number are not part of it.
    static constexpr std::uint32_t clusterMask = 0x0FFFFFFF;
    /// More clusters than 28 bits can name are not there, whatever the sector counts say.
    static constexpr std::uint64_t maxClusters = 0x0FFFFFF5;

    FileSystemType type {}; ///< fat12, fat16 or fat32, as the probe decided
    std::uint64_t bytesPerSector = 0;
    std::uint64_t fatOffset = 0; ///< of the first FAT
    std::uint64_t fatSize = 0;   ///< of one FAT
    std::uint32_t fatCount = 0;
    bool areFATsMirrored = true;     ///< each is a copy of the first one
    std::uint64_t rootDirOffset = 0; ///< of the fixed root directory (FAT12/16)
    std::uint64_t rootDirSize = 0;
    ClusterHeap heap;
    std::uint32_t rootCluster = 0; ///< first cluster of the root directory on FAT32, else 0
    std::uint64_t volumeSize = 0;
    std::string label; ///< the boot sector's; empty when there is none

    /// The cluster that two halves of a number in an entry name: the upper one counts on FAT32
    /// only.
    std::uint32_t clusterNumber(std::uint32_t stored) const
    {
        return type == FileSystemType::fat32 ? stored : stored & 0xFFFF;
    }

    /// The type that the specification ties to a number of clusters.
    static FileSystemType typeFor(std::uint64_t clusters);

    /// None when the volume would be impossible. `base`: where the volume begins on the source.
    static std::optional<FATGeometry> from(const FATBootSector& boot, std::uint64_t base);
};
