// Directories of which a sector in the middle is lost: it reads as zeros, and a zero ends a
// directory.

#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

constexpr std::uint32_t fileCount = 20; // three entries each, so that names lie across sectors

std::u16string longName(std::uint32_t number)
{
    return u"Billede " + std::u16string(1, static_cast<char16_t>('a' + number))
        + u" fra en ferie.jpg";
}

Bytes content(std::uint32_t number) { return patternBytes(600 + 100 * number, number); }

/// The files that begin with a long name and have their own content, in order, by their letter.
std::string lettersOf(const Found& found, const std::string& folder)
{
    std::string letters;
    for (std::uint32_t number = 0; number < fileCount; ++number) {
        const std::string letter(1, static_cast<char>('a' + number));
        if (found.count(folder + "/Billede " + letter + " fra en ferie.jpg", content(number)) == 1)
            letters += letter;
    }
    return letters;
}

struct BrokenFAT {
    FileSystemType type;
    bool isRoot;
};

class BrokenFATDirectory : public ::testing::TestWithParam<BrokenFAT> {
protected:
    BrokenFATDirectory()
        : image({ .type = GetParam().type, .sectorsPerCluster = 4 })
    {
        if (!GetParam().isRoot)
            folder = image.addFolder(FATImage::root, { .name = "MAPPE      " });
        for (std::uint32_t number = 0; number < fileCount; ++number) {
            std::string name = "BILLED~AJPG";
            name[7] = static_cast<char>('A' + number);
            image.addFile(folder, { .name = name, .longName = longName(number) }, content(number));
        }
    }

    std::uint64_t sector(std::size_t number) const
    {
        return image.entryOffset(folder, number * 16);
    }
    std::string path() const { return GetParam().isRoot ? "" : "/MAPPE"; }

    FATImage image;
    std::uint32_t folder = FATImage::root;
};

} // namespace

TEST_P(BrokenFATDirectory, CostsTheFilesOfTheLostSectorOnly)
{
    erase(image.bytes(), sector(1), sector(2));
    const auto source = makeSource(image.bytes());
    const auto quick = QuickScanner::run(*source, nullptr);
    EXPECT_EQ(quick.volumes.at(0)->root->allFiles().size(), GetParam().isRoot ? 5u : 4u);
    EXPECT_EQ(quick.volumes.at(0)->notes,
        std::vector<std::string> {
            "En mappe er afbrudt midt i – dyb scanning kan finde flere filer." });

    const Found found(image.bytes());
    EXPECT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(lettersOf(found, path()), GetParam().isRoot ? "abcdelmnopqrst" : "abcdklmnopqrst");
    for (const auto* file : found.volumes.at(0)->root->allFiles())
        EXPECT_EQ(file->status,
            file->name < "Billede f" && file->name > "Billede" ? EntryStatus::existing
                                                               : EntryStatus::orphaned)
            << file->name;
}

TEST_P(BrokenFATDirectory, WhatLiesBehindATrueEndIsNotOfTheFolder)
{
    image.bytes()[image.entryOffset(folder, 17)] = 0; // in the middle of a sector that is not lost
    const Found found(image.bytes());
    EXPECT_TRUE(found.volumes.at(0)->notes.empty());
    EXPECT_EQ(lettersOf(found, fragments), GetParam().isRoot ? "lmnopqrst" : "klmnopqrst");
}

INSTANTIATE_TEST_SUITE_P(FAT, BrokenFATDirectory,
    ::testing::Values(BrokenFAT { FileSystemType::fat12, true },
        BrokenFAT { FileSystemType::fat16, false }, BrokenFAT { FileSystemType::fat32, true },
        BrokenFAT { FileSystemType::fat32, false }));

TEST(BrokenExFATDirectory, CostsTheFilesOfTheLostSectorsOnly)
{
    for (const int clusterShift : { 0, 3 }) { // a chain of clusters, and sectors of one
        ExFATImage image({ .clusters = 400, .clusterShift = clusterShift });
        const auto folder = image.addFolder(
            image.root(), { .name = u"Mappe", .isContiguous = false }, clusterShift == 0 ? 8 : 1);
        for (std::uint32_t number = 0; number < fileCount; ++number)
            image.addFile(folder, { .name = longName(number) }, content(number));
        image.renewChecksums();
        erase(image.bytes(), image.entryOffset(folder, 16), image.entryOffset(folder, 48));
        erase(image.bytes(), image.entryOffset(folder, 64), image.entryOffset(folder, 80));
        const auto source = makeSource(image.bytes());
        const auto volume = ExFATParser::parse(*source, 0, "", nullptr);
        ASSERT_TRUE(volume);
        EXPECT_EQ(volume->notes,
            std::vector<std::string> { "En mappe mangler sektorer midt i – filer kan mangle." });
        std::string letters;
        for (const auto* file : volume->root->allFiles())
            letters += file->name.substr(8, 1) + (file->status == EntryStatus::existing ? "" : "!");
        EXPECT_EQ(letters, "abcdmnop");
    }
}
