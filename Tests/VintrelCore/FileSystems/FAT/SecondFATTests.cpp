// Copies of failing disks have zeros where sectors of the first FAT were unreadable.

#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"

#include <gtest/gtest.h>

namespace {

const std::string noteOfQuickScan
    = "FAT-tabellens to kopier er forskellige – prøv dyb scanning, som bruger dem begge.";

/// A card with a file of three clusters, and the first sector of its first FAT zeroed.
FATImage cardWithZeroedFAT(FileSystemType type)
{
    FATImage image({ .type = type });
    image.addFile(FATImage::root, { .name = "A       BIN" }, patternBytes(1500));
    erase(image.bytes(), image.fatOffset(), image.fatOffset() + 512);
    return image;
}

std::vector<std::string> notesOf(const FATImage& image)
{
    return FATParser::parse(*makeSource(image.bytes()), 0, "", nullptr)->notes;
}

} // namespace

class ZeroedFirstFAT : public ::testing::TestWithParam<FileSystemType> { };

TEST_P(ZeroedFirstFAT, LetsTheDeepScanUseTheSecond)
{
    const auto image = cardWithZeroedFAT(GetParam());
    const auto source = makeSource(image.bytes());
    const auto quick = FATParser::parse(*source, 0, "", nullptr);
    EXPECT_EQ(quick->notes, std::vector { noteOfQuickScan });
    EXPECT_EQ(chance(*quick->root->allFiles().at(0)), "Delvis: Klyngekæden er afbrudt");

    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(found.volumes[0]->notes,
        std::vector<std::string> { "FAT-tabellens to kopier er forskellige – tomme sektorer er "
                                   "hentet fra den anden kopi." });
    EXPECT_EQ(chance(*found.volumes[0]->root->allFiles().at(0)), "God");
    EXPECT_EQ(found.count("/A.BIN", patternBytes(1500)), 1);
}

INSTANTIATE_TEST_SUITE_P(FAT, ZeroedFirstFAT,
    ::testing::Values(FileSystemType::fat12, FileSystemType::fat16, FileSystemType::fat32));

TEST(SecondFAT, IsNotAskedWhereItIsNoCopy)
{
    auto image = cardWithZeroedFAT(FileSystemType::fat32);
    ASSERT_EQ(notesOf(image), std::vector { noteOfQuickScan });
    image.bytes()[40] = 0x80; // only one of the two is kept up to date
    EXPECT_TRUE(notesOf(image).empty());
    image.bytes()[40] = 0;
    image.write(image.fatOffset() + image.fatSize(), bytesOf("something else"));
    EXPECT_TRUE(notesOf(image).empty());
}
