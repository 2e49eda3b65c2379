#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FileSystems/FSProbe.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using enum FileSystemType;
using Type = std::optional<FileSystemType>;

template <std::unsigned_integral T> Bytes with(Bytes bytes, std::size_t at, T value)
{
    store(bytes, at, value);
    return bytes;
}

/// A FAT16 boot sector whose sectors before the data (32 reserved, two FATs of 16, a root directory
/// of 32) are followed by `sectors` more.
Bytes fatWithDataSectors(std::uint32_t sectors)
{
    return with<std::uint32_t>(volumeStart(fat16), 32, 96 + sectors);
}

} // namespace

TEST(FSProbe, FindsEachFileSystemWhereItBegins)
{
    for (const auto type : { fat12, fat16, fat32, exfat, ntfs, hfsplus, apfs, ext }) {
        const auto moved = PartitionImage(64_KiB).volume(9, type).source();
        EXPECT_EQ(FSProbe::detect(*moved, 9 * 512), type);
        for (const std::uint64_t offset :
            { std::uint64_t { 8 * 512 }, std::uint64_t { 64_KiB }, ~std::uint64_t { 0 } })
            EXPECT_EQ(FSProbe::detect(*moved, offset), std::nullopt) << displayName(type);
    }
}

TEST(FSProbe, TheNumberOfClustersGivesTheWidth)
{
    const std::pair<std::uint32_t, FileSystemType> widths[]
        = { { 1, fat12 }, { 4084, fat12 }, { 4085, fat16 }, { 65524, fat16 }, { 65525, fat32 } };
    for (const auto& [clusters, type] : widths) {
        EXPECT_EQ(FSProbe::detectBootSector(fatWithDataSectors(clusters)), type) << clusters;
        // Sectors that do not fill a cluster count for nothing.
        const auto more = with<std::uint8_t>(fatWithDataSectors((clusters + 1) * 128 - 1), 13, 128);
        EXPECT_EQ(FSProbe::detectBootSector(more), type) << clusters;
    }
    // The 16-bit sector count outweighs the 32-bit one, and a root directory takes up whole
    // sectors.
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint16_t>(volumeStart(fat16), 19, 4000)), fat12);
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint16_t>(volumeStart(fat16), 17, 513)), fat12);
}

TEST(FSProbe, RefusesImpossibleFields)
{
    const struct {
        const char* what;
        Bytes bytes;
        Type expected = std::nullopt;
    } cases[] = {
        { "signature 55 AB", with<std::uint8_t>(volumeStart(fat16), 511, 0xAB) },
        { "sectors of 520 bytes", with<std::uint16_t>(volumeStart(fat16), 11, 520) },
        { "clusters of 0 sectors", with<std::uint8_t>(volumeStart(fat16), 13, 0) },
        { "no FAT", with<std::uint8_t>(volumeStart(fat16), 16, 0) },
        { "FATs of 0 sectors", with<std::uint16_t>(volumeStart(fat16), 22, 0) },
        { "no data sector", fatWithDataSectors(0) },
        { "sizes whose sum passes 32 bits",
            with<std::uint32_t>(volumeStart(fat32), 36, 0xFFFFFFFF) },
        { "NTFS, sectors of 4096 bytes", with<std::uint16_t>(volumeStart(ntfs), 11, 4096), ntfs },
        { "NTFS, sectors of 8192 bytes", with<std::uint16_t>(volumeStart(ntfs), 11, 8192) },
        { "exFAT, shift 13", with<std::uint8_t>(volumeStart(exfat), 108, 13) },
        { "HFSX, version 4", with<std::uint8_t>(volumeStart(hfsplus), 1024 + 1, 'X') },
        { "HFSX, version 5", with<std::uint32_t>(volumeStart(hfsplus), 1024, 0x05005848), hfsplus },
        { "HFS+, blocks of 3000 bytes",
            with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0xB80B0000) },
        { "HFS+, no blocks", with<std::uint8_t>(volumeStart(hfsplus), 1024 + 47, 0) },
        // What a formatting leaves of an older file system behind the boot sector does not count.
        { "FAT with an ext magic", with<std::uint16_t>(volumeStart(fat16), 1024 + 56, 0xEF53),
            fat16 },
        { "HFS+ with an ext magic", with<std::uint16_t>(volumeStart(hfsplus), 1024 + 56, 0xEF53),
            hfsplus },
    };
    for (const auto& [what, bytes, expected] : cases)
        EXPECT_EQ(FSProbe::detect(*makeSource(bytes), 0), expected) << what;

    // A FAT sector that bears a broken exFAT name is still FAT; with a sound one it is not.
    auto sector = volumeStart(fat16);
    std::ranges::copy(bytesOf("EXFAT   "), sector.begin() + 3);
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint8_t>(sector, 108, 13)), fat16);
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint8_t>(sector, 108, 9)), exfat);
}

TEST(FSProbe, ShortBuffersAndSourcesAreNoFileSystem)
{
    const auto boot = volumeStart(fat16);
    EXPECT_EQ(FSProbe::detectBootSector(ByteView(boot).sub(0, 511)), std::nullopt);
    EXPECT_EQ(FSProbe::detectBootSector(boot, -7), std::nullopt);
    EXPECT_EQ(FSProbe::detectBootSector(boot, INT64_MAX), std::nullopt);
    EXPECT_FALSE(FSProbe::isHFSPlusHeader(volumeStart(hfsplus), 2040));
    auto superblock = volumeStart(ext);
    superblock.resize(1024 + 57);
    EXPECT_EQ(FSProbe::detect(*makeSource(superblock), 0), std::nullopt);
}
