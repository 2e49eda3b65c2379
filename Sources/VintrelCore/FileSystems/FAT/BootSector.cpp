#include "VintrelCore/FileSystems/FAT/BootSector.h"

#include "VintrelCore/FileSystems/FAT/Geometry.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>

namespace {

constexpr std::uint64_t rootEntrySize = 32;

bool isSectorSize(std::uint32_t bytes)
{
    return bytes >= 512 && bytes <= 4096 && std::has_single_bit(bytes);
}

/// E8, a call, is not in that document. It stands on some media beside the two jumps.
bool isJump(std::uint8_t opcode) { return opcode == 0xE8 || opcode == 0xE9 || opcode == 0xEB; }

} // namespace

FATBootSector FATBootSector::from(ByteView head)
{
    std::array<std::uint8_t, sizeof(FATBootSector)> padded {};
    std::ranges::copy(head.sub(0, padded.size()).span(), padded.begin());
    return std::bit_cast<FATBootSector>(padded);
}

std::optional<FileSystemType> FATBootSector::type() const
{
    constexpr int mostFATs = 4; // two are usual
    if (signature[0] != 0x55 || signature[1] != 0xAA || !isJump(jump[0])
        || !isSectorSize(bytesPerSector) || !std::has_single_bit(sectorsPerCluster)
        || reservedSectors == 0 || fatCount == 0 || fatCount > mostFATs)
        return std::nullopt;
    if (sectorsPerFAT() == 0 || dataSector() >= totalSectors())
        return std::nullopt;
    if (sectorsPerFAT16 == 0)
        return FileSystemType::fat32;
    return FATGeometry::typeFor((totalSectors() - dataSector()) / sectorsPerCluster);
}

std::uint64_t FATBootSector::totalSectors() const
{
    if (totalSectors16 != 0)
        return totalSectors16;
    return totalSectors32;
}

std::uint64_t FATBootSector::sectorsPerFAT() const
{
    if (sectorsPerFAT16 != 0)
        return sectorsPerFAT16;
    return fat32().sectorsPerFAT;
}

std::uint64_t FATBootSector::rootDirSector() const
{
    return reservedSectors + sectorsPerFAT() * fatCount;
}

std::uint64_t FATBootSector::dataSector() const
{
    return rootDirSector() + unitsFor(rootEntries * rootEntrySize, bytesPerSector);
}
