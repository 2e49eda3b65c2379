#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSBootSector, TellsTheSizesOfClustersAndRecords)
{
    const struct {
        const char* what;
        std::uint64_t at;
        Bytes field;
        std::uint64_t clusterSize; ///< 0: refused
        std::uint64_t recordSize;
    } cases[] = {
        { "as it is", 0, {}, 1024, 1024 },
        { "another system", 3, bytesOf("EXFAT   "), 0, 0 },
        { "odd sectors", 11, { 0x01, 0x03 }, 0, 0 },
        { "sectors of 4096", 11, { 0x00, 0x10 }, 8192, 1024 },
        { "129 mean none", 13, { 129 }, 0, 0 },
        { "2^12 of them", 13, { 0xF4 }, 2'097'152, 1024 },
        { "2^13 of them", 13, { 0xF3 }, 0, 0 },
        { "two clusters in a record", 64, { 2 }, 1024, 2048 },
        { "records of 2^8", 64, { 0xF8 }, 0, 0 },
        { "records of 2^17", 64, { 0xEF }, 0, 0 },
    };
    for (const auto& [what, at, field, clusterSize, recordSize] : cases) {
        Image image;
        image.write(at, field);
        const auto geometry = NTFSGeometry::from(ByteView(image.bytes()).sub(0, 512), 0);
        EXPECT_EQ(geometry ? geometry->clusterSize : 0, clusterSize) << what;
        EXPECT_EQ(geometry ? geometry->recordSize : 0, recordSize) << what;
    }
}

TEST(NTFSBootSector, TellsWhereTheVolumeOfABackupBegins)
{
    constexpr std::uint64_t all = std::uint64_t { 0 } - 1;
    const struct {
        const char* what;
        std::uint64_t bytesPerSector, sectors, offset;
        std::optional<std::uint64_t> start;
    } cases[] = {
        { "behind its last sector", 512, 1000, 1000 * 512 + 32'256, 32'256 },
        { "sectors of 4096 bytes", 4096, 200, 201 * 4096, 4096 },
        { "at the source's first byte", 512, 1000, 1000 * 512, 0 },
        { "before the source", 512, 1000, 999 * 512, std::nullopt },
        { "more sectors than there are", 512, all, 1000 * 512, std::nullopt },
    };
    for (const auto& [what, bytesPerSector, sectors, offset, start] : cases) {
        Image image;
        putLE(image.bytes(), 11, bytesPerSector, 2);
        putLE(image.bytes(), 40, sectors, 8);
        EXPECT_EQ(NTFSParser::startByBackup(ByteView(image.bytes()).sub(0, 512), offset), start)
            << what;
    }
    EXPECT_EQ(NTFSParser::startByBackup(Bytes(512), 4096), std::nullopt);
}
