#include "VintrelCore/FileSystems/ExFAT/Geometry.h"

#include "VintrelCore/FileSystems/ExFAT/BootSector.h"

#include <algorithm>
#include <limits>

std::optional<ExFATGeometry> ExFATGeometry::from(const ExFATBootSector& boot, std::uint64_t base)
{
    const int shift = boot.bytesPerSectorShift;
    if (shift + boot.sectorsPerClusterShift > maxClusterShift)
        return std::nullopt;
    const std::uint64_t sectors = boot.volumeLength;
    const auto heapSector = static_cast<std::uint64_t>(boot.heapOffset);
    if (sectors > std::numeric_limits<std::uint64_t>::max() >> shift || heapSector >= sectors
        || boot.clusterCount == 0)
        return std::nullopt;
    const std::uint64_t volumeSize = sectors << shift;
    if (base > std::numeric_limits<std::uint64_t>::max() - volumeSize)
        return std::nullopt;

    const std::uint64_t clustersInVolume = (sectors - heapSector) >> boot.sectorsPerClusterShift;
    const auto count
        = std::min<std::uint64_t>({ boot.clusterCount, clustersInVolume, maxClusters });
    const std::uint64_t fatSector = std::uint64_t { boot.fatOffset }
        + (boot.usesSecondFAT() ? std::uint64_t { boot.fatLength } : 0);
    if (count == 0)
        return std::nullopt;
    return ExFATGeometry {
        .fatOffset = base + (fatSector << shift),
        .fatSize = std::uint64_t { boot.fatLength } << shift,
        .heap = { .offset = base + (heapSector << shift),
            .clusterSize = std::uint64_t { 1 } << (shift + boot.sectorsPerClusterShift),
            .count = static_cast<std::uint32_t>(count) },
        .rootCluster = boot.rootCluster,
        .volumeSize = volumeSize,
        .activeFAT = boot.usesSecondFAT() ? 1 : 0,
    };
}
