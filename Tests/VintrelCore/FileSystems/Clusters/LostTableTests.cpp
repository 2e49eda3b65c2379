// Volumes without a boot sector whose allocation tables are still there.

#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedVolume.h"

#include <gtest/gtest.h>

namespace {

const Bytes content = patternBytes(3 * 512);

/// Exchanges the last two of a file's three clusters of 512 bytes.
template <class Image> void fragment(Image& image, std::uint32_t first, std::uint32_t endMark)
{
    image.write(image.offsetOf(first + 1), Bytes(content.begin() + 1024, content.end()));
    image.write(image.offsetOf(first + 2), Bytes(content.begin() + 512, content.begin() + 1024));
    image.setFAT(first, first + 2);
    image.setFAT(first + 2, first + 1);
    image.setFAT(first + 1, endMark);
}

struct LostBoot {
    FileSystemType type;
    bool hasFirst;
    bool hasSecond;
};

class TableOfLostFAT : public ::testing::TestWithParam<LostBoot> { };

} // namespace

TEST_P(TableOfLostFAT, SaysWhereFragmentedFilesLie)
{
    const auto [type, hasFirst, hasSecond] = GetParam();
    FATImage image({ .type = type });
    for (const char* name : { "ET         ", "TO         ", "VAEK       ", "BORT       " }) {
        const auto folder = image.addFolder(FATImage::root, { .name = name });
        fragment(image, image.addFile(folder, { .name = "INDE    BIN" }, content), image.endMark());
        image.addFile(folder, { .name = "SLETTET BIN" }, content);
        image.remove(folder, "SLETTET BIN");
    }
    for (const char* name : { "VAEK       ", "BORT       " }) // have no chain any more
        image.remove(FATImage::root, name);
    const auto first = image.fatOffset();
    const auto second = first + image.fatSize();
    erase(image.bytes(), 0, first);
    if (!hasFirst)
        erase(image.bytes(), first, second);
    if (!hasSecond)
        erase(image.bytes(), second, second + image.fatSize());

    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    const bool hasFAT = hasFirst || hasSecond;
    EXPECT_EQ(found.volumes[0]->type, hasFAT ? type : FileSystemType::fat12) << "by its size";
    EXPECT_EQ(found.volumes[0]->notes.size(), hasFAT ? 1u : 2u);
    EXPECT_EQ(found.count("/ET/INDE.BIN", content) + found.count("/TO/INDE.BIN", content),
        hasFAT ? 2 : 200);
}

INSTANTIATE_TEST_SUITE_P(FAT, TableOfLostFAT,
    ::testing::Values(LostBoot { FileSystemType::fat12, false, true },
        LostBoot { FileSystemType::fat16, true, false },
        LostBoot { FileSystemType::fat16, true, true },
        LostBoot { FileSystemType::fat32, false, true },
        LostBoot { FileSystemType::fat32, true, true },
        LostBoot { FileSystemType::fat32, false, false }));

TEST(TablesOfLostExFAT, SayWhereFragmentedFilesLieAndWhatIsFree)
{
    ExFATImage image;
    for (const char16_t* name : { u"Et", u"To", u"Tredje" }) {
        const auto folder = image.addFolder(image.root(), { .name = name });
        image.allocate(std::u16string(name).size(), true); // no distance twice
        fragment(image, image.addFile(folder, { .name = u"inde", .isContiguous = false }, content),
            ExFATImage::endMark);
    }
    image.addFile(image.root(), { .name = u"slettet" }, content);
    image.remove(u"slettet");
    erase(image.bytes(), 0, image.fatOffset());

    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    EXPECT_EQ(found.volumes[0]->notes.size(), 1u);
    EXPECT_EQ(found.count("/Et/inde", content) + found.count("/Tredje/inde", content), 2);
    for (const auto* file : found.volumes[0]->root->allFiles())
        EXPECT_EQ(chance(*file), "God") << file->path();
}
