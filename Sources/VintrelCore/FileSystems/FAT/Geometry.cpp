#include "VintrelCore/FileSystems/FAT/Geometry.h"

#include "VintrelCore/FileSystems/FAT/BootSector.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>

namespace {

constexpr std::uint16_t notMirroredFlag = 0x80; // in the flags of FAT32: one FAT alone is in use

std::string labelText(const std::array<std::uint8_t, 11>& field)
{
    const auto text = ByteView(field).ascii(0, std::ssize(field));
    return std::string(Unicode::trimmed(text));
}

} // namespace

FileSystemType FATGeometry::typeFor(std::uint64_t clusters)
{
    constexpr std::uint64_t fewestOnFAT16 = 4'085;
    constexpr std::uint64_t fewestOnFAT32 = 65'525;
    if (clusters < fewestOnFAT16)
        return FileSystemType::fat12;
    return clusters < fewestOnFAT32 ? FileSystemType::fat16 : FileSystemType::fat32;
}

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
        .areFATsMirrored = !isFAT32 || (boot.fat32().flags & notMirroredFlag) == 0,
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
