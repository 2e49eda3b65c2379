#include "VintrelCore/FileSystems/FSProbe.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>
#include <bit>

namespace FSProbe {

namespace {

bool isSectorSize(std::uint32_t bytes)
{
    return bytes >= 512 && bytes <= 4096 && std::has_single_bit(bytes);
}

std::optional<FileSystemType> detectFAT(ByteView boot)
{
    const auto jump = boot.u8(0);
    if (boot.u8(510) != 0x55 || boot.u8(511) != 0xAA)
        return std::nullopt;
    if (jump != 0xE8 && jump != 0xE9
        && jump != 0xEB) // E8, a call, stands on some media beside the two jumps
        return std::nullopt;

    const std::uint64_t bytesPerSector = boot.u16le(11);
    const std::uint64_t sectorsPerCluster = boot.u8(13);
    const std::uint64_t reserved = boot.u16le(14);
    const std::uint64_t fatCount = boot.u8(16);
    if (!isSectorSize(boot.u16le(11)) || !std::has_single_bit(sectorsPerCluster) || reserved == 0
        || fatCount < 1 || fatCount > 4)
        return std::nullopt;

    const bool isFAT32Style = boot.u16le(22) == 0;
    const std::uint64_t fatSize = isFAT32Style ? boot.u32le(36) : boot.u16le(22);
    const std::uint64_t total = boot.u16le(19) != 0 ? boot.u16le(19) : boot.u32le(32);
    const std::uint64_t rootSectors
        = (std::uint64_t { boot.u16le(17) } * 32 + bytesPerSector - 1) / bytesPerSector;
    const std::uint64_t firstData = reserved + fatSize * fatCount + rootSectors;
    if (fatSize == 0 || total == 0 || firstData >= total)
        return std::nullopt;
    if (isFAT32Style)
        return FileSystemType::fat32;
    const std::uint64_t clusters = (total - firstData) / sectorsPerCluster;
    if (clusters < 4085)
        return FileSystemType::fat12;
    return clusters < 65525 ? FileSystemType::fat16 : FileSystemType::fat32;
}

} // namespace

std::optional<FileSystemType> detectBootSector(ByteView bytes, std::int64_t at)
{
    const auto boot = bytes.sub(at, static_cast<std::int64_t>(bytes.size()));
    if (boot.matches("NTFS    ", 3) && isSectorSize(boot.u16le(11)))
        return FileSystemType::ntfs;
    if (boot.matches("EXFAT   ", 3) && boot.u8(108) >= 9 && boot.u8(108) <= 12)
        return FileSystemType::exfat;
    return detectFAT(boot);
}

bool isHFSPlusHeader(ByteView bytes, std::int64_t at)
{
    const auto header = bytes.sub(at, static_cast<std::int64_t>(bytes.size()));
    const auto signature = header.u16be(0);
    const auto version = header.u16be(2);
    const auto blockSize = header.u32be(40);
    const bool isHFSPlus = signature == 0x482B && version == 4;
    const bool isHFSX = signature == 0x4858 && version == 5;
    return (isHFSPlus || isHFSX) && blockSize >= 512 && blockSize <= 1'048'576
        && std::has_single_bit(blockSize) && header.u32be(44) != 0;
}

Bytes bootSector(DiskSource& source, std::uint64_t offset, std::optional<ByteView> found)
{
    if (!found)
        return source.read(offset, 512, ReadMode::thorough);
    const auto bytes = found->span();
    return { bytes.begin(), bytes.end() };
}

std::optional<FileSystemType> detect(DiskSource& source, std::uint64_t offset)
{
    const auto head = source.read(offset, 4096, ReadMode::thorough);
    const ByteView start(head);
    if (const auto type = detectBootSector(start))
        return type;

    // HFS+ and ext keep their first kilobyte free. Bytes past the source's end are no superblock.
    const std::uint64_t available = source.size() > offset ? source.size() - offset : 0;
    const auto second = start.sub(
        1024, static_cast<std::int64_t>(std::min<std::uint64_t>(available, 1536)) - 1024);
    if (isHFSPlusHeader(second))
        return FileSystemType::hfsplus;
    if (start.matches("NXSB", 32))
        return FileSystemType::apfs;
    if (second.size() >= 58 && second.u16le(56) == 0xEF53)
        return FileSystemType::ext;
    return std::nullopt;
}

} // namespace FSProbe
