// What deleted folders and files of FAT volumes still tell, and what they must not be taken to
// tell.

#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"

#include <gtest/gtest.h>

namespace {

constexpr auto root = FATImage::root;
constexpr auto fat32 = FileSystemType::fat32;

Parsed parse(const FATImage& image)
{
    Parsed card { .source = makeSource(image.bytes()), .volume = nullptr };
    card.volume = FATParser::parse(*card.source, 0, "", nullptr);
    return card;
}

} // namespace

TEST(FATDeletedFolders, DoNotTakeTheContentOfFilesForEntries)
{
    FATImage image({ .type = fat32 });
    const auto folder = image.addFolder(root, { .name = "FULD       " });
    const auto photo = image.addFile(root, { .name = "FOTO    JPG" }, Bytes(512, 'x'));
    ASSERT_EQ(photo, folder + 1);
    for (int i = 0; i < 14; ++i) // with "." and "..", as many as a cluster takes
        image.addEntry(folder, { .name = "F" + std::to_string(10 + i) + "     TXT" });
    for (const auto* name : { "FULD       ", "FOTO    JPG" })
        image.remove(root, name);
    EXPECT_EQ(parse(image)["/_ULD"].children().size(), 14u);
}

TEST(FATDeletedFiles, AreNotOfferedWithMoreBytesThanTheVolumeHas)
{
    FATImage image({ .type = fat32 });
    image.addFile(root, { .name = "STOR    BIN" }, patternBytes(700));
    const auto size = image.entryOffset(root, 0) + 28;
    image.bytes()[size + 3] = 0xF0; // nearly 4 GiB
    image.remove(root, "STOR    BIN");
    const auto card = parse(image);
    EXPECT_TRUE(std::holds_alternative<NoData>(card["/_TOR.BIN"].data));
    EXPECT_EQ(chance(card["/_TOR.BIN"]),
        "Delvis: Filens størrelse er større end diskens; Dele af filen kan være overskrevet");
}
