#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSTree, SaysWhatTheVolumeIs)
{
    const Image image;
    const auto disk = parse(image);
    EXPECT_EQ(disk.volume->type, FileSystemType::ntfs);
    EXPECT_EQ(disk.volume->title(), "Data (NTFS)");
    EXPECT_EQ(disk.volume->origin, "prøve");
    EXPECT_EQ(disk.volume->clusterSize, 1024u);
    EXPECT_EQ(disk.volume->size, image.bytes().size());
    EXPECT_TRUE(disk.volume->notes.empty());
}

TEST(NTFSTree, ListsAndReadsExistingFiles)
{
    Image image;
    const auto photo = patternBytes(5000);
    image.putFolder(20, root, u"Billeder");
    image.putFile(21, { 20, 1 }, u"IMG_0001.JPG", photo);
    image.putFile(22, root, u"lille.txt", bytesOf("lille"));
    image.putFile(23, root, u"tom.txt", {});
    // Pieces in another order than the disk's, with a hole between.
    const auto first = image.store(firstOf(photo, 2048));
    const auto second = image.store(firstOf(photo, 1024));
    image.put(24,
        named(u"stykker.bin",
            { Image::data(
                { .runs = { second[0], { std::nullopt, 2 }, first[0] }, .size = 5000 }) }));
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /Billeder /Billeder/IMG_0001.JPG /lille.txt /stykker.bin /tom.txt");
    EXPECT_EQ(disk.content("/Billeder/IMG_0001.JPG"), photo);
    EXPECT_EQ(disk.content("/lille.txt"), bytesOf("lille"));
    EXPECT_EQ(disk.content("/stykker.bin"),
        joined({ firstOf(photo, 1024), Bytes(2048), firstOf(photo, 1928) }));
    for (const auto* path : { "/Billeder/IMG_0001.JPG", "/lille.txt", "/stykker.bin", "/tom.txt" })
        EXPECT_EQ(fate(disk[path]), "Eksisterende, God") << path;
    const auto& node = disk["/Billeder/IMG_0001.JPG"];
    EXPECT_EQ(node.created, TimeConversion::fromFiletime(Image::creation));
    EXPECT_EQ(node.modified, TimeConversion::fromFiletime(Image::modification));
    EXPECT_EQ(node.fsID, 21u);
}

TEST(NTFSTree, ListsAFileOnceAndNoFilesOfTheSystem)
{
    Image image;
    auto stream = Image::data(bytesOf("x"));
    stream[9] = 4; // the length of its name
    image.putFolder(20, root, u"mappe");
    image.put(25,
        { .attributes = { Image::standardInformation(), Image::fileName({ 20, 1 }, u"Navn.txt"),
              Image::fileName(root, u"Andet navn.txt"), stream, Image::data(bytesOf("hej")) } });
    image.putFolder(30, { 11, 11 }, u"$RmMetadata");
    image.putFile(31, { 30, 1 }, u"$TxfLog", bytesOf("x"));
    image.putFile(8, root, u"$BadClus", bytesOf("x"));
    image.put(
        32, { .attributes = { Image::standardInformation(), Image::data(bytesOf("uden navn")) } });
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /mappe /mappe/Navn.txt");
    EXPECT_EQ(disk.content("/mappe/Navn.txt"), bytesOf("hej"));
}

TEST(NTFSTree, ListsWhatUsersHadInTheFolderForDeletedOpenFiles)
{
    Image image;
    constexpr FileReference extend { 11, 11 };
    image.putFile(20, extend, u"$ObjId", bytesOf("x"));
    image.putFolder(29, extend, u"$Deleted");
    image.putFile(30, { 29, 1 }, u"0005000000001234", bytesOf("åben"));
    image.putFolder(31, { 29, 1 }, u"mappe");
    image.putFile(32, { 31, 1 }, u"fil", bytesOf("x"));
    image.putFile(33, extend, u"fremmed", bytesOf("x"));
    image.putFolder(34, root, u"$Deleted"); // a user's own
    image.putFile(35, { 34, 1 }, u"fil", bytesOf("x"));
    const std::string orphans = " /$Forældreløse filer";
    EXPECT_EQ(parse(image).names(),
        " /$Deleted /$Deleted/fil" + orphans + orphans + "/mappe" + orphans + "/mappe/fil" + orphans
            + "/0005000000001234" + orphans + "/fremmed");
}

TEST(NTFSTree, TrustsAFolderOnlyWhileItsSlotIsItsOwn)
{
    const struct {
        const char* what;
        FileReference parent;
        bool isTrusted;
    } cases[] = {
        { "a folder in use", { 20, 4 }, true },
        { "a slot in use that was used again", { 20, 3 }, false },
        { "a deleted folder", { 21, 7 }, true },
        { "a deleted folder, twice", { 21, 6 }, false },
        { "a deleted folder whose count went from FFFF to 1", { 23, 0xFFFF }, true },
        { "a file", { 22, 1 }, false },
        { "far beyond the MFT", { 0xFFFFFFFFFFFF, 1 }, false },
        { "itself", { 30, 1 }, false },
        { "a system file", { 3, 3 }, false },
        { "the root, whatever it was", { 5, 77 }, true },
    };
    for (const auto& [what, parent, isTrusted] : cases) {
        Image image;
        image.putFolder(20, root, u"mappe", true, 4);
        image.putFolder(21, root, u"slettet", false, 8);
        image.putFile(22, root, u"fil", {});
        image.putFolder(23, root, u"rundt", false, 1);
        image.putFile(30, parent, u"barn", bytesOf("x"), false);
        const auto disk = parse(image);
        const bool isOrphan = disk.names().find("/$Forældreløse filer/barn") != std::string::npos;
        EXPECT_EQ(!isOrphan, isTrusted) << what << ":" << disk.names();
    }
}

TEST(NTFSTree, KeepsTheFoldersOfOrphans)
{
    Image image;
    image.putFolder(20, { 50, 9 }, u"øverst");
    image.putFolder(21, { 20, 1 }, u"midt", false, 2);
    image.putFile(22, { 21, 1 }, u"nederst", bytesOf("x"), false);
    const auto disk = parse(image);
    const std::string top = "/$Forældreløse filer";
    EXPECT_EQ(disk.names(),
        " " + top + " " + top + "/øverst " + top + "/øverst/midt " + top + "/øverst/midt/nederst");
    EXPECT_EQ(disk[top].status, EntryStatus::orphaned);
    EXPECT_EQ(disk[top + "/øverst"].status, EntryStatus::existing);
    EXPECT_EQ(disk[top + "/øverst/midt"].status, EntryStatus::deleted);
}

TEST(NTFSTree, CutsARingOfFoldersAmongTheOrphans)
{
    Image image;
    image.putFolder(23, { 24, 1 }, u"A");
    image.putFolder(24, { 23, 1 }, u"B");
    image.putFile(25, { 24, 1 }, u"fil", bytesOf("x"));
    const std::string top = "/$Forældreløse filer";
    EXPECT_EQ(
        parse(image).names(), " " + top + " " + top + "/A " + top + "/A/B " + top + "/A/B/fil");
}

TEST(NTFSTree, ListsDeletedContentWithoutAName)
{
    Image image;
    image.put(26, { .inUse = false, .attributes = { Image::data(bytesOf("uden navn")) } });
    image.put(27, { .inUse = false, .attributes = { Image::data(Bytes {}) } });
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /$Forældreløse filer /$Forældreløse filer/unavngivet-26");
    EXPECT_EQ(disk.content("/$Forældreløse filer/unavngivet-26"), bytesOf("uden navn"));
}

TEST(NTFSTree, TakesAnotherNameWhereTheFolderOfTheBestOneIsLost)
{
    const FileReference lost { 50, 9 }, here { 20, 1 }, there { 21, 1 };
    const struct {
        const char* what;
        std::vector<Bytes> names;
        std::string path;
    } cases[] = {
        { "the other long name",
            { Image::fileName(lost, u"Væk.txt"), Image::fileName(lost, u"VÆK~1.TXT", 2),
                Image::fileName(here, u"Her.txt") },
            "/her/Her.txt" },
        { "a long name rather than a short one that stands before it",
            { Image::fileName(lost, u"Væk.txt"), Image::fileName(here, u"KORT~1.TXT", 2),
                Image::fileName(there, u"Langt navn.txt") },
            "/der/Langt navn.txt" },
        { "a short name rather than none",
            { Image::fileName(lost, u"Væk.txt"), Image::fileName(here, u"KORT~1.TXT", 2) },
            "/her/KORT~1.TXT" },
    };
    for (const auto& [what, names, path] : cases) {
        Image image;
        image.putFolder(20, root, u"her");
        image.putFolder(21, root, u"der");
        image.put(28, { .attributes = names });
        EXPECT_NE(parse(image).names().find(path), std::string::npos) << what;
    }
}

TEST(NTFSTree, TellsTheFurtherNamesOfAFile)
{
    const FileReference lost { 50, 9 }, here { 20, 1 }, there { 21, 1 };
    const auto name = [](FileReference parent, std::u16string_view text, std::uint8_t space = 1) {
        return Image::fileName(parent, text, space);
    };
    const struct {
        std::vector<Bytes> names;
        std::string path, note; ///< the note may be empty
    } cases[] = {
        { { name(here, u"a"), name(here, u"A~1", 2) }, "/her/a", "" },
        { { name(here, u"a"), name(here, u"A~1", 2), name(here, u"b") }, "/her/a", "/her/b" },
        { { name(here, u"a"), name(there, u"a", 0), name(root, u"c") }, "/her/a",
            "/her/der/a, /c" },
        { { name(lost, u"a"), name(here, u"b"), name(lost, u"c") }, "/her/b", "a, c" },
        { { name(root, u"a"), name(root, u"b"), name(root, u"c"), name(root, u"d"),
              name(root, u"e"), name(root, u"f") },
            "/a", "/b, /c, /d og 2 mere" },
    };
    for (const auto& [names, path, note] : cases) {
        Image image;
        image.putFolder(20, root, u"her");
        image.putFolder(21, here, u"der");
        auto attributes = names;
        attributes.push_back(Image::data(bytesOf("x")));
        image.put(28, { .attributes = attributes });
        const auto disk = parse(image);
        EXPECT_EQ(disk[path].note.value_or(""), note.empty() ? "" : "Har også navnet " + note);
        EXPECT_EQ(disk.volume->root->totals().files, 1u);
    }
}

TEST(NTFSTree, IsAsDeepAsTheMFTIsLong)
{
    Image deep({ .clusters = 20'100, .records = 20'000 });
    for (std::uint64_t number = 20; number < 20'000; ++number)
        deep.putFolder(number, { number + 1, 1 }, u"d");
    EXPECT_EQ(parse(deep).volume->root->totals().folders, 19'981u);
}
