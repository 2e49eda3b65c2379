#include "VintrelCore/FileSystems/NTFS/CheckedGeometry.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/BootSector.h"
#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <limits>

namespace NTFSParser {

namespace {

constexpr std::uint64_t sectorSizes[] = { 512, 1024, 2048, 4096 };

/// Where the boot sector says something impossible; the records tell their own size.
constexpr std::uint64_t usualRecordSize = 1024;

constexpr std::uint64_t clustersPerByte = 8;

/// $Bitmap has bits for a few clusters behind the volume's end: systems round its size up.
constexpr std::uint64_t maxSpareClusters = 512;

/// What the first records of an MFT say of the volume that they lie on.
struct MFTFacts {
    std::uint32_t recordSize = 0;
    std::uint64_t mftLCN = 0;
    std::optional<std::uint64_t> clusterSize; ///< none where the record does not tell it
    std::optional<std::uint64_t> clusters;    ///< that $Bitmap has bits for; none where it is lost
};

bool readRecord(DiskSource& source, std::uint64_t offset, std::uint64_t number, MFTRecord& record,
    std::uint32_t& size)
{
    const auto identity
        = identityOfRecord(source.read(offset, recordHeaderSize, ReadMode::thorough));
    if (!identity || identity->number != number)
        return false;
    size = identity->size;
    auto bytes = source.read(offset, size, ReadMode::thorough);
    return parseRecord(bytes, number, record);
}

/// By the MFT's own record where the geometry has it, or by the copy of that. None when neither
/// lies there.
std::optional<MFTFacts> readFacts(DiskSource& source, const NTFSGeometry& geometry)
{
    for (const auto lcn : { geometry.mftLCN, geometry.mirrorLCN }) {
        const auto offset = geometry.offsetOf(lcn);
        MFTFacts facts;
        MFTRecord record;
        if (!offset || *offset >= source.size()
            || !readRecord(source, *offset, 0, record, facts.recordSize))
            continue;
        const auto mftLCN = NTFSRebuild::firstLCN(record);
        if (!mftLCN)
            continue;
        facts.mftLCN = *mftLCN;
        // With an attribute list the record has the first runs only, and the size of all of them.
        if (!record.hasAttributeList())
            facts.clusterSize = NTFSRebuild::clusterSizeOf(record);
        const auto mft = geometry.offsetOf(*mftLCN);
        std::uint32_t size = 0;
        if (mft && *mft < source.size()
            && readRecord(
                source, *mft + bitmapRecord * facts.recordSize, bitmapRecord, record, size)
            && !record.data.empty())
            facts.clusters = saturatingMultiply(record.data.front().dataSize, clustersPerByte);
        return facts;
    }
    return std::nullopt;
}

bool hasSamePlaces(const NTFSGeometry& geometry, const MFTFacts& facts)
{
    return geometry.mftLCN == facts.mftLCN
        && (!facts.clusterSize || *facts.clusterSize == geometry.clusterSize);
}

/// Whether the volume ends before clusters that its records speak of.
bool isTooSmall(const NTFSGeometry& geometry, const MFTFacts& facts)
{
    const std::uint64_t clusters = geometry.volumeSize / geometry.clusterSize;
    return clusters <= geometry.mftLCN
        || (facts.clusters && *facts.clusters > clusters
            && *facts.clusters - clusters > maxSpareClusters);
}

bool isTooLarge(const NTFSGeometry& geometry, const MFTFacts& facts)
{
    return facts.clusters && *facts.clusters < geometry.volumeSize / geometry.clusterSize;
}

bool fits(DiskSource& source, const NTFSGeometry& geometry)
{
    const auto facts = readFacts(source, geometry);
    return facts && hasSamePlaces(geometry, *facts) && geometry.recordSize == facts->recordSize
        && !isTooSmall(geometry, *facts) && !isTooLarge(geometry, *facts);
}

/// Where the backup may lie: behind the last sector that the boot sector counts, and in the last
/// one of the partition.
std::vector<std::uint64_t> placesOfBackup(
    const NTFSBootSector& boot, std::uint64_t base, std::uint64_t partitionSize)
{
    std::vector<std::uint64_t> places;
    const std::uint64_t counted = saturatingMultiply(boot.totalSectors, boot.bytesPerSector);
    if (counted > 0 && counted <= std::numeric_limits<std::uint64_t>::max() - base)
        places.push_back(base + counted);
    for (const auto size : sectorSizes)
        if (partitionSize > size)
            places.push_back(base + partitionSize - size);
    return places;
}

std::optional<NTFSGeometry> geometryByBackup(
    DiskSource& source, const NTFSBootSector& boot, std::uint64_t base, std::uint64_t partitionSize)
{
    for (const auto place : placesOfBackup(boot, base, partitionSize)) {
        if (place >= source.size())
            continue;
        const auto geometry
            = NTFSGeometry::from(source.read(place, sectorSizes[0], ReadMode::thorough), base);
        if (geometry && fits(source, *geometry))
            return geometry;
    }
    return std::nullopt;
}

/// The geometry with the sizes that the records tell. None when they lie elsewhere.
std::optional<NTFSGeometry> geometryByRecords(DiskSource& source, NTFSGeometry geometry)
{
    const auto facts = readFacts(source, geometry);
    if (!facts || !hasSamePlaces(geometry, *facts))
        return std::nullopt;
    geometry.recordSize = facts->recordSize;
    if (facts->clusters && isTooSmall(geometry, *facts))
        geometry.volumeSize = std::min(source.size() - geometry.base,
            saturatingMultiply(*facts->clusters, geometry.clusterSize));
    return geometry;
}

} // namespace

std::optional<NTFSGeometry> checkedGeometry(DiskSource& source, ByteView boot, std::uint64_t base,
    std::uint64_t partitionSize, std::vector<std::string>& notes)
{
    const auto sector = NTFSBootSector::from(boot);
    if (!sector || base >= source.size())
        return std::nullopt;
    const auto own = NTFSGeometry::from(boot, base);
    if (own && fits(source, *own))
        return own;
    if (const auto backup = geometryByBackup(source, *sector, base, partitionSize)) {
        if (backup != own)
            notes.emplace_back("Bootsektoren er beskadiget – sikkerhedskopien blev brugt.");
        return backup;
    }
    const auto given = own ? own : NTFSGeometry::withRecordSize(*sector, base, usualRecordSize);
    const auto other = given ? geometryByRecords(source, *given) : std::nullopt;
    if (!other || other == own)
        return own;
    notes.emplace_back("Bootsektoren er beskadiget – størrelser fra $MFT blev brugt.");
    return other;
}

} // namespace NTFSParser
