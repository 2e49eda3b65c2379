#pragma once

#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/DeepInfo.h"
#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <span>
#include <vector>

class DiskSource;

namespace NTFSParser {

/// The clusters that a known volume has in use.
struct KnownUse {
    NTFSGeometry geometry;
    AllocationMap map;
};

/// What helps to tell where a volume without a boot sector lies.
struct RebuildHints {
    std::vector<NTFSGeometry> geometries;     ///< of volumes and boot sectors that were found
    std::vector<const NTFSDeepInfo*> volumes; ///< whose files are listed already
    std::vector<std::uint64_t> starts;        ///< where volumes of any kind begin, or are likely to
    const std::vector<CarvedFile>& carved;    ///< files found by content, ascending by offset
    std::vector<KnownUse> used {};            ///< what known volumes have in use
};

/// The volumes that MFT records (absolute offsets, ascending) belong to which no volume has: put
/// together from the records alone. Where a volume's place cannot be told, its files have names and
/// what fits in a record, and no more.
VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> records,
    const RebuildHints& hints, WorkProgress* progress);

/// Those records that belong to none of these volumes: neither to their MFTs nor to the mirrors of
/// these.
std::vector<std::uint64_t> looseRecords(
    std::span<const std::uint64_t> records, const VolumeList& volumes);

} // namespace NTFSParser
