#include "VintrelCore/FileSystems/NTFS/Geometry.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <limits>

namespace {

/// "NTFS Documentation", $MFTMirr: it holds the first records, or as many as fit in a cluster.
constexpr std::uint64_t mirroredRecords = 4;

} // namespace

std::optional<NTFSGeometry> NTFSGeometry::from(ByteView boot, std::uint64_t base)
{
    const auto sector = NTFSBootSector::from(boot);
    if (!sector || sector->recordSize == 0)
        return std::nullopt;
    return withRecordSize(*sector, base, sector->recordSize);
}

std::optional<NTFSGeometry> NTFSGeometry::withRecordSize(
    const NTFSBootSector& sector, std::uint64_t base, std::uint64_t recordSize)
{
    if (sector.sectorsPerCluster == 0)
        return std::nullopt;
    return NTFSGeometry {
        .base = base,
        .clusterSize = sector.bytesPerSector * sector.sectorsPerCluster,
        .recordSize = static_cast<std::uint32_t>(recordSize),
        .volumeSize = saturatingMultiply(sector.totalSectors, sector.bytesPerSector),
        .mftLCN = sector.mftLCN,
        .mirrorLCN = sector.mirrorLCN,
    };
}

std::optional<std::uint64_t> NTFSGeometry::offsetOf(std::uint64_t lcn) const
{
    constexpr auto maximum = std::numeric_limits<std::uint64_t>::max();
    if (!hasPlace || lcn > (maximum - base) / clusterSize)
        return std::nullopt;
    return base + lcn * clusterSize;
}

std::uint64_t NTFSGeometry::mirrorSize() const
{
    return std::max(mirroredRecords * recordSize, clusterSize);
}
