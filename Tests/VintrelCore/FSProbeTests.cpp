#include "Tests/Images/PartitionImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FSProbe.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using enum FileSystemType;
using Type = std::optional<FileSystemType>;

constexpr FileSystemType probed[] = { fat12, fat16, fat32, exfat, ntfs, hfsplus, apfs, ext };

template <std::unsigned_integral T> Bytes with(Bytes bytes, std::size_t at, T value)
{
    store(bytes, at, value);
    return bytes;
}

/// A FAT16 boot sector whose sectors before the data (one reserved, a FAT of 16, a root directory of one) are followed
/// by `sectors` more.
Bytes fatWithDataSectors(std::uint32_t sectors) { return with<std::uint32_t>(volumeStart(fat16), 32, 18 + sectors); }

} // namespace

TEST(FSProbe, FindsEachFileSystemWhereItBegins)
{
    for (const auto type : probed) {
        const auto start = volumeStart(type);
        EXPECT_EQ(FSProbe::detect(*makeSource(start), 0), type) << displayName(type);

        const auto moved = PartitionImage(64_KiB).volume(9, type).source();
        EXPECT_EQ(FSProbe::detect(*moved, 9 * 512), type) << displayName(type);
        EXPECT_EQ(FSProbe::detect(*moved, 8 * 512), std::nullopt) << displayName(type);
        EXPECT_EQ(FSProbe::detect(*moved, 64_KiB), std::nullopt);
        EXPECT_EQ(FSProbe::detect(*moved, ~std::uint64_t { 0 }), std::nullopt);
    }
}

TEST(FSProbe, TheNumberOfClustersGivesTheWidth)
{
    const struct {
        std::uint32_t clusters;
        FileSystemType type;
    } widths[] = { { 1, fat12 }, { 4084, fat12 }, { 4085, fat16 }, { 65524, fat16 }, { 65525, fat32 } };
    for (const auto& [clusters, type] : widths)
        for (const auto sectorsPerCluster : { std::uint8_t { 1 }, std::uint8_t { 128 } }) {
            const auto whole = with(fatWithDataSectors(clusters * sectorsPerCluster), 13, sectorsPerCluster);
            EXPECT_EQ(FSProbe::detectBootSector(whole), type) << clusters;
            // Sectors that do not fill a cluster count for nothing.
            const auto more = with(fatWithDataSectors((clusters + 1) * sectorsPerCluster - 1), 13, sectorsPerCluster);
            EXPECT_EQ(FSProbe::detectBootSector(more), type) << clusters;
        }
    // The place of the FAT's size outweighs the number of clusters.
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint32_t>(volumeStart(fat32), 32, 600)), fat32);
    // The 16-bit sector count outweighs the 32-bit one, and a root directory takes up whole sectors.
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint16_t>(volumeStart(fat16), 19, 4000)), fat12);
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint16_t>(volumeStart(fat16), 17, 17)), fat12);
}

TEST(FSProbe, RefusesEachImpossibleField)
{
    const struct {
        const char* what;
        Bytes bytes;
        Type expected = std::nullopt;
    } cases[] = {
        { "jump E8", with<std::uint8_t>(volumeStart(fat16), 0, 0xE8), fat16 },
        { "jump E9", with<std::uint8_t>(volumeStart(fat16), 0, 0xE9), fat16 },
        { "jump EA", with<std::uint8_t>(volumeStart(fat16), 0, 0xEA) },
        { "signature 54 AA", with<std::uint8_t>(volumeStart(fat16), 510, 0x54) },
        { "signature 55 AB", with<std::uint8_t>(volumeStart(fat16), 511, 0xAB) },
        { "sectors of 256 bytes", with<std::uint16_t>(volumeStart(fat16), 11, 256) },
        { "sectors of 520 bytes", with<std::uint16_t>(volumeStart(fat16), 11, 520) },
        { "sectors of 4096 bytes", with<std::uint16_t>(volumeStart(fat16), 11, 4096), fat16 },
        { "sectors of 8192 bytes", with<std::uint16_t>(volumeStart(fat16), 11, 8192) },
        { "clusters of 0 sectors", with<std::uint8_t>(volumeStart(fat16), 13, 0) },
        { "clusters of 3 sectors", with<std::uint8_t>(volumeStart(fat16), 13, 3) },
        { "no reserved sector", with<std::uint16_t>(volumeStart(fat16), 14, 0) },
        { "no FAT", with<std::uint8_t>(volumeStart(fat16), 16, 0) },
        { "4 FATs", with<std::uint8_t>(volumeStart(fat16), 16, 4), fat12 }, // fewer clusters are left
        { "5 FATs", with<std::uint8_t>(volumeStart(fat16), 16, 5) },
        { "FATs of 0 sectors", with<std::uint16_t>(volumeStart(fat16), 22, 0) },
        { "no sectors", with<std::uint32_t>(volumeStart(fat16), 32, 0) },
        { "no data sector", fatWithDataSectors(0) },
        { "FATs beyond the end", with<std::uint16_t>(volumeStart(fat16), 22, 0xFFFF) },
        { "sizes whose sum passes 32 bits", with<std::uint32_t>(volumeStart(fat32), 36, 0xFFFFFFFF) },
        { "NTFS, sectors of 4096 bytes", with<std::uint16_t>(volumeStart(ntfs), 11, 4096), ntfs },
        { "NTFS, sectors of 520 bytes", with<std::uint16_t>(volumeStart(ntfs), 11, 520) },
        { "NTFS with other blanks", with<std::uint8_t>(volumeStart(ntfs), 10, 0) },
        { "exFAT, shift 12", with<std::uint8_t>(volumeStart(exfat), 108, 12), exfat },
        { "exFAT, shift 8", with<std::uint8_t>(volumeStart(exfat), 108, 8) },
        { "exFAT, shift 13", with<std::uint8_t>(volumeStart(exfat), 108, 13) },
        { "HFS+, version 5", with<std::uint8_t>(volumeStart(hfsplus), 1024 + 3, 5) },
        { "HFSX, version 4", with<std::uint8_t>(volumeStart(hfsplus), 1024 + 1, 'X') },
        { "HFSX, version 5", with<std::uint32_t>(volumeStart(hfsplus), 1024, 0x05005848), hfsplus },
        { "HFS+, blocks of 256 bytes", with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0x00010000) },
        { "HFS+, blocks of 512 bytes", with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0x00020000), hfsplus },
        { "HFS+, blocks of 3000 bytes", with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0xB80B0000) },
        { "HFS+, blocks of 1 MiB", with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0x00001000), hfsplus },
        { "HFS+, blocks of 2 MiB", with<std::uint32_t>(volumeStart(hfsplus), 1024 + 40, 0x00002000) },
        { "HFS+, no blocks", with<std::uint8_t>(volumeStart(hfsplus), 1024 + 47, 0) },
        { "APFS, another magic", with<std::uint8_t>(volumeStart(apfs), 35, 'C') },
        { "ext, another magic", with<std::uint16_t>(volumeStart(ext), 1024 + 56, 0xEF52) },
    };
    for (const auto& [what, bytes, expected] : cases)
        EXPECT_EQ(FSProbe::detect(*makeSource(bytes), 0), expected) << what;
}

TEST(FSProbe, ABetterKnownSignatureGoesFirst)
{
    // A FAT sector that bears a broken exFAT or NTFS name is still FAT; with a sound name it is not.
    auto sector = volumeStart(fat16);
    std::ranges::copy(bytesOf("EXFAT   "), sector.begin() + 3);
    sector[11] = 0; // the name reaches into the field
    sector[12] = 2;
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint8_t>(sector, 108, 13)), fat16);
    EXPECT_EQ(FSProbe::detectBootSector(with<std::uint8_t>(sector, 108, 9)), exfat);
    std::ranges::copy(bytesOf("NTFS    "), sector.begin() + 3);
    EXPECT_EQ(FSProbe::detectBootSector(sector), ntfs);

    // What a formatting leaves of an older file system behind the boot sector does not count.
    auto reused = volumeStart(fat16);
    const auto older = volumeStart(hfsplus);
    std::copy(older.begin() + 1024, older.end(), reused.begin() + 1024);
    EXPECT_EQ(FSProbe::detect(*makeSource(reused), 0), fat16);
    auto both = with<std::uint16_t>(older, 1024 + 56, 0xEF53);
    EXPECT_EQ(FSProbe::detect(*makeSource(both), 0), hfsplus);
}

TEST(FSProbe, ShortBuffersAndSourcesAreNoFileSystem)
{
    for (const auto type : { fat16, exfat, ntfs }) {
        auto buffer = volumeStart(type);
        buffer.insert(buffer.begin(), 7, 0);
        EXPECT_EQ(FSProbe::detectBootSector(buffer, 7), type);
        EXPECT_EQ(FSProbe::detectBootSector(ByteView(buffer).sub(0, 7 + 511), 7), type == fat16 ? Type() : Type(type));
        for (const std::int64_t at : { std::int64_t { -7 }, std::int64_t { 2055 }, INT64_MAX })
            EXPECT_EQ(FSProbe::detectBootSector(buffer, at), std::nullopt);
    }
    auto superblock = volumeStart(ext);
    superblock.resize(1024 + 58);
    EXPECT_EQ(FSProbe::detect(*makeSource(superblock), 0), ext);
    superblock.pop_back();
    EXPECT_EQ(FSProbe::detect(*makeSource(superblock), 0), std::nullopt);
    EXPECT_FALSE(FSProbe::isHFSPlusHeader(volumeStart(hfsplus), 2040));
    EXPECT_TRUE(FSProbe::isHFSPlusHeader(volumeStart(hfsplus), 1024));
    EXPECT_EQ(FSProbe::detect(*makeSource({}), 0), std::nullopt);
}
