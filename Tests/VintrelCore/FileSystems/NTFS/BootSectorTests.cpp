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

TEST(NTFSBootSector, IsCheckedAgainstTheFirstRecordsAndTheBackup)
{
    const std::string byBackup = "Bootsektoren er beskadiget – sikkerhedskopien blev brugt.";
    const std::string byRecords = "Bootsektoren er beskadiget – størrelser fra $MFT blev brugt.";
    const struct {
        const char* what;
        std::uint64_t at; ///< the field that is damaged
        Bytes field;
        std::string note;              ///< with a backup
        std::string noteWithoutBackup; ///< "-": no volume
    } rows[] = {
        { "sound", 0, {}, "", "" },
        { "larger sectors", 12, { 4 }, byBackup, "-" },
        { "larger clusters", 13, { 4 }, byBackup, "-" },
        { "no clusters", 13, { 0 }, byBackup, "-" },
        { "one sector", 40, { 1, 0 }, byBackup, byRecords },
        { "more sectors than $Bitmap has bits for", 43, { 1 }, byBackup, "" },
        { "the MFT elsewhere", 48, { 99 }, byBackup,
            "$MFT-posten var beskadiget – $MFTMirr blev brugt." },
        { "larger records", 64, { 0xF5 }, byBackup, byRecords },
        { "impossible records", 64, { 0 }, byBackup, byRecords },
    };
    for (const auto& [what, at, field, note, noteWithoutBackup] : rows)
        for (const bool hasBackup : { true, false }) {
            Image image;
            image.putFile(20, root, u"fil", patternBytes(2000));
            const auto backup = firstOf(image.bytes(), 512);
            image.write(at, field);
            auto bytes = image.bytes();
            bytes.resize(bytes.size() + 512);
            if (hasBackup)
                std::ranges::copy(backup, bytes.end() - 512);
            const auto source = makeSource(bytes);
            const auto volume
                = NTFSParser::parse(*source, 0, "", nullptr, std::nullopt, bytes.size());
            const auto& expected = hasBackup ? note : noteWithoutBackup;
            ASSERT_EQ(volume == nullptr, expected == "-") << what << hasBackup;
            if (!volume)
                continue;
            const auto& notes = volume->notes;
            EXPECT_EQ(notes.empty() ? "" : notes[0], expected) << what << hasBackup;
            EXPECT_EQ(FileReader::readPrefix(*volume->root->allFiles().at(0), *source, 4000),
                patternBytes(2000))
                << what << hasBackup;
        }
}
