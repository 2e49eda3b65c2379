// Geometry of a FAT volume, and the questions that its allocation table answers.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FAT/BootSector.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>

namespace {

constexpr std::uint32_t clusterMask
    = 0x0FFFFFFF; // the top four bits of a FAT32 entry are not part of the number

/// More clusters than a 28-bit entry can name are not there, whatever the sector counts say.
constexpr std::uint64_t maxClusters = 0x0FFFFFF5;

/// The FAT of the largest volume that any system makes is a third larger than 512 MiB; beyond this
/// the size is damage.
constexpr std::uint64_t maxFATSize = 805'306'368;

std::string labelText(const std::array<std::uint8_t, 11>& field)
{
    const auto text = ByteView(field).ascii(0, std::ssize(field));
    return std::string(Unicode::trimmed(text));
}

/// From here on an entry means "last cluster of its chain".
std::uint32_t endMark(FileSystemType type)
{
    switch (type) {
    case FileSystemType::fat12:
        return 0xFF8;
    case FileSystemType::fat16:
        return 0xFFF8;
    default:
        return 0x0FFFFFF8;
    }
}

/// Bits of an entry in the table.
std::uint64_t entryBits(FileSystemType type)
{
    switch (type) {
    case FileSystemType::fat12:
        return 12;
    case FileSystemType::fat16:
        return 16;
    default:
        return 32;
    }
}

/// Replaces the sectors that are all zero in the first copy, as unreadable ones are, by the second
/// copy's.
void repair(Bytes& first, const Bytes& second, std::size_t sectorSize)
{
    for (std::size_t at = 0; at < first.size(); at += sectorSize) {
        const auto length = static_cast<std::int64_t>(std::min(sectorSize, first.size() - at));
        if (ByteView(first).isAllZero(static_cast<std::int64_t>(at), length))
            std::copy_n(second.begin() + static_cast<std::ptrdiff_t>(at), length,
                first.begin() + static_cast<std::ptrdiff_t>(at));
    }
}

} // namespace

std::optional<FATGeometry> FATGeometry::from(const FATBootSector& boot, std::uint64_t base)
{
    const auto type = boot.type();
    if (!type)
        return std::nullopt;
    const std::uint64_t bytesPerSector = boot.bytesPerSector;
    const std::uint64_t volumeSize = bytesPerSector * boot.totalSectors(); // below 2^48
    if (base > std::numeric_limits<std::uint64_t>::max() - volumeSize)
        return std::nullopt;

    const bool isFAT32 = type == FileSystemType::fat32;
    const std::uint64_t clusters
        = (boot.totalSectors() - boot.dataSector()) / boot.sectorsPerCluster;
    const auto label = labelText(isFAT32 ? boot.fat32().label : boot.fat16().label);
    return FATGeometry {
        .type = *type,
        .bytesPerSector = bytesPerSector,
        .fatOffset = base + boot.reservedSectors * bytesPerSector,
        .fatSize = boot.sectorsPerFAT() * bytesPerSector,
        .fatCount = boot.fatCount,
        .rootDirOffset = base + boot.rootDirSector() * bytesPerSector,
        .rootDirSize = boot.rootEntries * FATEntries::entrySize,
        .heap = { .offset = base + boot.dataSector() * bytesPerSector,
            .clusterSize = bytesPerSector * boot.sectorsPerCluster,
            .count = static_cast<std::uint32_t>(std::min(clusters, maxClusters)) },
        .rootCluster = isFAT32 ? boot.fat32().rootCluster & clusterMask : 0,
        .volumeSize = volumeSize,
        .label = label == "NO NAME" ? std::string() : label,
    };
}

FATContext::FATContext(DiskSource& source, FATGeometry geometry)
    : source_(source)
    , geometry_(std::move(geometry))
{
    load();
    const std::uint64_t entries = loadedEntries();
    used_ = ClusterBits(entries);
    seen_ = ClusterBits(entries);
    for (std::uint32_t cluster = 2; cluster < entries; ++cluster)
        if (entry(cluster) != 0)
            used_.insert(cluster);
}

void FATContext::load()
{
    fatUnavailable_ = geometry_.fatSize == 0 || geometry_.fatSize > maxFATSize;
    if (fatUnavailable_)
        return;
    // No more is read than the clusters need and the source holds; entries beyond that count as
    // free.
    const std::uint64_t needed
        = ((std::uint64_t { geometry_.heap.count } + 2) * entryBits(geometry_.type) + 7) / 8;
    const std::uint64_t onSource
        = source_.size() > geometry_.fatOffset ? source_.size() - geometry_.fatOffset : 0;
    const auto length
        = static_cast<std::int64_t>(std::min({ geometry_.fatSize, needed, onSource }));
    auto first = source_.readReporting(geometry_.fatOffset, length, ReadMode::thorough);
    if (first.badBytes > 0 && geometry_.fatCount >= 2)
        repair(first.data,
            source_.read(geometry_.fatOffset + geometry_.fatSize, length, ReadMode::thorough),
            static_cast<std::size_t>(geometry_.bytesPerSector));
    fat_ = std::move(first.data);
}

std::uint64_t FATContext::loadedEntries() const
{
    return std::min<std::uint64_t>(
        fat_.size() * 8 / entryBits(geometry_.type), std::uint64_t { geometry_.heap.count } + 2);
}

std::uint32_t FATContext::entry(std::uint32_t cluster) const
{
    const ByteView table(fat_);
    const std::int64_t number = cluster;
    switch (geometry_.type) {
    case FileSystemType::fat12: {
        // Two entries in three bytes: the even one has the low 12 bits of the 16 that begin in its
        // first byte, the odd one the high 12 bits.
        const std::uint32_t pair = table.u16le(number + number / 2);
        return cluster % 2 != 0 ? pair >> 4 : pair & 0xFFF;
    }
    case FileSystemType::fat16:
        return table.u16le(number * 2);
    default:
        return table.u32le(number * 4) & clusterMask;
    }
}

ClusterChain FATContext::chain(std::uint32_t from, std::uint64_t maxClusters)
{
    const auto& heap = geometry_.heap;
    if (fatUnavailable_)
        return contiguousChain(heap, from, std::max<std::uint64_t>(1, maxClusters));
    return followChain(heap, from, std::min<std::uint64_t>(maxClusters, heap.count),
        endMark(geometry_.type), seen_, [this](std::uint32_t cluster) { return entry(cluster); });
}
