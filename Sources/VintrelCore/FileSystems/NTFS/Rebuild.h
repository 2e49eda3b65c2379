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

/// A volume whose files are listed already. It may get more of them.
struct ListedVolume {
    Volume* volume;
    const NTFSDeepInfo* info;
};

/// What helps to tell where a volume without a boot sector lies.
struct RebuildHints {
    std::vector<NTFSGeometry> geometries; ///< of volumes and boot sectors that were found
    std::vector<ListedVolume> volumes;
    std::vector<std::uint64_t> starts;     ///< where volumes of any kind begin, or are likely to
    const std::vector<CarvedFile>& carved; ///< files found by content, ascending by offset
    std::vector<KnownUse> used {};         ///< what known volumes have in use
    /// Where blocks of folders' indices lie that no known volume has in use, ascending.
    std::vector<std::uint64_t> indexBlocks {};
};

/// Gives MFT records (absolute offsets, ascending) that no volume has back to the listed volumes
/// whose own they were. The result is the volumes that the others belong to, put together from the
/// records alone. Where a volume's place cannot be told, its files have names and
/// what fits in a record, and no more.
VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> records,
    const RebuildHints& hints, WorkProgress* progress);

/// Those records that belong to none of these volumes: neither to their MFTs nor to the mirrors of
/// these.
std::vector<std::uint64_t> looseRecords(
    std::span<const std::uint64_t> records, const VolumeList& volumes);

} // namespace NTFSParser
