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

TEST(FATDeletedFolders, ContinueWhereTheContentOfTheirFilesLeadsTo)
{
    for (const bool isRightBehind : { true, false }) { // behind the last content, or one further
        FATImage image({ .type = fat32 });
        const auto folder = image.addFolder(root, { .name = "FULD       " }, 2);
        // A name of two pieces that the border of the clusters cuts.
        for (int i = 10; i < 22; ++i)
            image.addFile(
                folder, { .name = "F" + std::to_string(i) + "     TXT" }, patternBytes(700));
        image.addEntry(folder, { .name = "F22     TXT" });
        const auto first = isRightBehind
            ? 0
            : image.addFile(root, { .name = "INDHOLD    " }, patternBytes(700, 2));
        const auto moved = image.addFile(root, { .name = "FLYTTET    " }, Bytes(512));
        const auto content = first != 0 ? first : moved + 1;
        image.addEntry(folder,
            { .name = "LANGTN~1TXT",
                .longName = u"Et langt navn.txt",
                .cluster = content,
                .size = 700 });
        for (const char* name : { "X       TXT", "Y       TXT" })
            image.addEntry(folder, { .name = name });
        for (int i = 10; i < 23; ++i)
            image.remove(folder, "F" + std::to_string(i) + "     TXT");
        for (const char* name : { "X       TXT", "Y       TXT", "LANGTN~1TXT" })
            image.remove(folder, name);
        const auto part = std::span(image.bytes()).subspan(image.offsetOf(folder + 1), 512);
        image.write(image.offsetOf(moved), Bytes(part.begin(), part.end()));
        image.write(image.offsetOf(folder + 1), Bytes(512, 0xEE));
        for (const char* name : { "FULD       ", "FLYTTET    " })
            image.remove(root, name);
        if (!isRightBehind)
            image.remove(root, "INDHOLD    ");
        EXPECT_EQ(
            chance(parse(image)["/_ULD"]), "Ukendt: Mappen fortsætter muligvis et andet sted");

        Found found(image.bytes());
        ASSERT_EQ(found.volumes.size(), 1u);
        const Parsed card { .source = image.source(), .volume = std::move(found.volumes[0]) };
        EXPECT_EQ(card["/_ULD"].children().size(), 16u);
        EXPECT_EQ(chance(card["/_ULD"]), "Ukendt");
        EXPECT_EQ(card["/_ULD/Et langt navn.txt"].fsID, content);
    }
}

TEST(FATDeletedFolders, AreFoundWhereTheUpperHalfOfTheirNumberWasCleared)
{
    FATImage image({ .type = fat32, .clusters = 140'000 });
    image.addFile(root, { .name = "FYLD    BIN" }, Bytes(65'540 * 512));
    const auto folder = image.addFolder(root, { .name = "MAPPE      " });
    const auto inner = image.addFolder(folder, { .name = "INDRE      " });
    image.addFile(inner, { .name = "DYB     TXT" }, patternBytes(700));
    const auto gone = image.addFolder(root, { .name = "VAEK       " });
    ASSERT_GT(folder, 0xFFFFu);
    const auto clearUpperHalf = [&](std::uint32_t parent, std::size_t number) {
        image.write(image.entryOffset(parent, number) + 20, Bytes(2));
    };
    image.remove(inner, "DYB     TXT");
    image.remove(folder, "INDRE      ");
    for (const char* name : { "MAPPE      ", "VAEK       " })
        image.remove(root, name);
    clearUpperHalf(inner, 2);
    clearUpperHalf(folder, 2);
    clearUpperHalf(root, 1);
    clearUpperHalf(root, 2);
    image.setFAT(gone, image.endMark()); // somebody else has it
    const auto quick = parse(image);
    EXPECT_EQ(chance(quick["/_APPE"]), "Ukendt: Mappens indhold er overskrevet");

    Found found(image.bytes());
    const Parsed card { .source = image.source(), .volume = std::move(found.volumes.at(0)) };
    EXPECT_EQ(chance(card["/_APPE"]), "Ukendt");
    EXPECT_EQ(chance(card["/_APPE/_NDRE/_YB.TXT"]),
        "Ringe: Startklyngen er genbrugt af en anden fil; Startklyngens nummer kan mangle sin øvre "
        "halvdel");
    EXPECT_EQ(chance(card["/_AEK"]), "Ukendt: Mappens indhold er overskrevet");
}

TEST(FATDeletedFiles, HaveTheirShortNameWhereThePiecesOfTheLongOneBearMixedMarks)
{
    FATImage image({ .type = fat32 });
    image.addEntry(root, { .name = "LANG~1  TXT", .longName = u"Navn i to stykker.txt" });
    image.remove(root, "LANG~1  TXT");
    EXPECT_EQ(parse(image).names(), " /Navn i to stykker.txt");
    image.bytes()[image.entryOffset(root, 0)] = 0x02;
    EXPECT_EQ(parse(image).names(), " /_ANG~1.TXT");
    image.bytes()[image.entryOffset(root, 0) + 13] ^= 0xFF; // now it is of another row
    EXPECT_EQ(parse(image).names(), " /Navn i to sty");
}
