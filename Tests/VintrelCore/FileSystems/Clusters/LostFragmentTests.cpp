// Directories that nothing leads to any more: after a quick format, and where boot sector and FAT
// are gone.

#include "Tests/Images/ExFATImage.h"
#include "Tests/Images/FATImage.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"

#include <gtest/gtest.h>

#include <map>

namespace {

/// A folder in the root, one in that, and a file in each: patterns of the name's number. Clusters
/// of 512 bytes.
FATImage cardWithFolders(FileSystemType type, std::uint32_t sectorsPerCluster, std::uint32_t seed,
    std::size_t bytesBefore = 0)
{
    FATImage image({ .type = type, .sectorsPerCluster = sectorsPerCluster });
    if (bytesBefore > 0)
        image.addFile(FATImage::root, { .name = "FOER    BIN" }, Bytes(bytesBefore, 0xAA));
    const auto outer = image.addFolder(FATImage::root, { .name = "YDRE       " });
    image.addFile(outer, { .name = "A       TXT" }, patternBytes(5000, seed));
    const auto inner = image.addFolder(outer, { .name = "INDRE      " });
    image.addFile(inner, { .name = "B       TXT" }, patternBytes(6000, seed + 1));
    image.addFile(inner, { .name = "C       TXT" }, patternBytes(100, seed + 2));
    return image;
}

} // namespace

TEST(LostFragments, FATVolumesAreRebuiltFromTheirDirectories)
{
    auto first = cardWithFolders(FileSystemType::fat32, 4, 1);
    auto second = cardWithFolders(FileSystemType::fat16, 1, 11);
    erase(first.bytes(), 0, first.offsetOf(3)); // with the root directory
    erase(second.bytes(), 0, second.offsetOf(2) - 16'384);
    Bytes disk = first.bytes();
    disk.insert(disk.end(), second.bytes().begin(), second.bytes().end());

    const Found found(disk);
    ASSERT_EQ(found.volumes.size(), 2u);
    EXPECT_EQ(found.volumes[0]->clusterSize, 2048u);
    EXPECT_EQ(found.volumes[1]->clusterSize, 512u);
    EXPECT_EQ(found.volumes[1]->origin, "Dyb scanning, mappesektorer");
    EXPECT_EQ(found.volumes[1]->notes.front(),
        "Genopbygget ud fra 2 FAT-mappesektorer fundet ved dyb scanning.");
    EXPECT_EQ(found.files.size(), 6u);
    for (const auto& volume : found.volumes)
        volume->root->forEachDescendant([](const FileNode& node, std::size_t) {
            EXPECT_EQ(node.status, EntryStatus::orphaned) << node.path();
        });
    for (const auto& [folder, seed] :
        { std::pair { fragments, 1u }, std::pair { std::string("/YDRE"), 11u } }) {
        EXPECT_EQ(found.count(folder + "/A.TXT", patternBytes(5000, seed)), 1);
        EXPECT_EQ(found.count(folder + "/INDRE/B.TXT", patternBytes(6000, seed + 1)), 1);
        EXPECT_EQ(found.count(folder + "/INDRE/C.TXT", patternBytes(100, seed + 2)), 1);
    }
}

TEST(LostFragments, FilesOfVolumesWithoutAFATAreGuesses)
{
    auto image = cardWithFolders(FileSystemType::fat32, 4, 1);
    const auto folder = image.addFolder(FATImage::root, { .name = "TREDJE     " });
    const auto live = image.addFile(folder, { .name = "LEVENDE BIN" }, patternBytes(6000));
    const auto add = [&](const char* name, std::uint32_t cluster, std::uint32_t size) {
        image.addEntry(folder, { .name = name, .cluster = cluster, .size = size });
        image.remove(folder, name);
    };
    add("AA      BIN", live, 2048);
    add("BB      BIN", live + 1, 2048);
    add("CC      BIN", live + 3, 2048);
    add("DD      BIN", live - 1, 6000); // on the folder itself
    erase(image.bytes(), 0, image.offsetOf(3));
    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 1u);
    std::map<std::string, std::string> chances;
    for (const auto* file : found.volumes[0]->root->allFiles())
        chances[file->name] = chance(*file);
    const std::string reused = "Ringe: Begyndelsen er genbrugt af en anden slettet fil";
    const std::string guessed = "Filens klynger kendes ikke; de antages at ligge samlet";
    const std::pair<const char*, std::string> expected[] = {
        { "C.TXT", "God" }, // in one cluster
        { "B.TXT", "Ukendt: " + guessed },
        { "_A.BIN", reused },
        { "_B.BIN", reused },
        { "_C.BIN", "God" },
        { "_D.BIN", "Ringe: " + guessed + "; Startklyngen er genbrugt af en anden fil" },
    };
    for (const auto& [name, text] : expected)
        EXPECT_EQ(chances[name], text) << name;
}

TEST(LostFragments, OneDirectoryAloneMakesNoVolume)
{
    FATImage image({ .type = FileSystemType::fat32 });
    const auto folder = image.addFolder(FATImage::root, { .name = "ENE        " });
    for (const char* name : { "A       TXT", "B       TXT" })
        image.addFile(folder, { .name = name }, patternBytes(700));
    erase(image.bytes(), 0, image.offsetOf(3));
    EXPECT_TRUE(Found(image.bytes()).volumes.empty());
    // Two that lie where no cluster size puts both.
    const auto copy = Bytes(image.bytes().begin() + static_cast<std::ptrdiff_t>(image.offsetOf(3)),
        image.bytes().end());
    image.bytes().insert(image.bytes().end(), copy.begin(), copy.end());
    EXPECT_TRUE(Found(image.bytes()).volumes.empty());
}

TEST(LostFragments, FATDirectoriesOfAnotherGeometryAreNotReadUnderThisOne)
{
    // The card was formatted again with larger clusters. The old root directory and all of the old
    // FATs are gone.
    auto image
        = cardWithFolders(FileSystemType::fat32, 1, 1, 4096); // which no new cluster may hide
    image.bytes().resize(image.bytes().size() * 8);
    FATImage fresh({ .type = FileSystemType::fat32, .sectorsPerCluster = 8 });
    ASSERT_LE(fresh.bytes().size(), image.bytes().size());
    image.write(0, std::span(fresh.bytes()).first(image.offsetOf(3)));
    const Found found(image.bytes());
    ASSERT_EQ(found.volumes.size(), 2u);
    EXPECT_TRUE(found.volumes[0]->root->children().empty());
    EXPECT_EQ(found.files.size(), 3u);
    EXPECT_EQ(found.count("/INDRE/B.TXT", patternBytes(6000, 2)), 1);
}

TEST(LostFragments, FATDirectoriesHangBelowTheirNames)
{
    FATImage image({});
    const auto inner = image.addFolder(
        FATImage::root, { .name = "X          " }); // lies before the one above it
    image.addFile(inner, { .name = "A       TXT" }, patternBytes(700));
    const auto outer = image.addFolder(FATImage::root, { .name = "Y          " });
    image.addEntry(outer, { .name = "INDRE      ", .attributes = 0x10, .cluster = inner });
    image.addFile(outer, { .name = "B       TXT" }, patternBytes(800));
    const auto foreign = image.addFolder(FATImage::root, { .name = "Z          " });
    image.addFile(foreign, { .name = "FREMMED TXT" }, patternBytes(900));
    putLE(image.bytes(), image.entryOffset(foreign, 0) + 26, foreign + 1,
        2); // calls itself by another number
    erase(
        image.bytes(), image.entryOffset(FATImage::root, 0), image.entryOffset(FATImage::root, 16));
    const Found found(image.bytes());
    EXPECT_EQ(found.files.size(), 2u);
    EXPECT_EQ(found.count(fragments + "/INDRE/A.TXT", patternBytes(700)), 1);
    EXPECT_EQ(found.count(fragments + "/B.TXT", patternBytes(800)), 1);
}

TEST(LostFragments, ExFATDirectoriesHangBelowTheirNames)
{
    const ExFATImage::Options options { .clusters = 300 };
    for (const bool hasFormatted :
        { true, false }) { // again as exFAT, or overwritten up to the first folder
        SCOPED_TRACE(hasFormatted);
        ExFATImage image(options);
        const auto outer = image.addFolder(image.root(), { .name = u"Ydre" });
        const auto inner = image.addFolder(outer, { .name = u"Indre", .isContiguous = false }, 2);
        const auto deeper = image.addFolder(outer, { .name = u"Ved siden af" });
        image.addFile(deeper, { .name = u"d.txt" }, patternBytes(900, 99));
        for (std::uint32_t i = 0; i < 9;
             ++i) // the sixth set is cut by the end of the first cluster
            image.addFile(inner,
                { .name = u"fil " + std::u16string(1, static_cast<char16_t>('0' + i)) },
                patternBytes(600 + i, i));
        image.remove(u"fil 3");
        // The folder's second cluster lies elsewhere, and only the FAT knew.
        const auto moved = image.allocate(1, false);
        const auto part = std::span(image.bytes()).subspan(image.offsetOf(inner + 1), 512);
        image.write(image.offsetOf(moved), Bytes(part.begin(), part.end()));
        image.write(image.offsetOf(inner + 1), Bytes(512, 0xEE));

        if (hasFormatted)
            image.write(0, std::span(ExFATImage(options).bytes()).first(image.offsetOf(outer)));
        else
            erase(image.bytes(), 0, image.offsetOf(outer));
        const Found found(image.bytes());
        ASSERT_EQ(found.volumes.size(), 1u);
        EXPECT_EQ(found.files.size(), 10u);
        for (std::uint32_t i = 0; i < 9; ++i)
            EXPECT_EQ(found.count(
                          fragments + "/Indre/fil " + std::to_string(i), patternBytes(600 + i, i)),
                1)
                << i;
        EXPECT_EQ(found.count(fragments + "/Ved siden af/d.txt", patternBytes(900, 99)), 1);
        for (const auto* file : found.volumes[0]->root->allFiles())
            EXPECT_EQ(
                file->recoverability, hasFormatted ? Recoverability::good : Recoverability::unknown)
                << file->path();
    }
}

namespace {

/// A FAT16 card on which folders "T", in it "N", and a cluster with more entries are left, and no
/// entry in the root leads to them. "N" is full, and the cluster lies behind the content of its
/// last file.
struct CardWithContinuation {
    FATImage image { {} };
    std::uint32_t split = image.addFolder(FATImage::root, { .name = "PAR        " }, 2);
    std::uint32_t top = image.addFolder(FATImage::root, { .name = "T          " });
    std::uint32_t inner = image.addFolder(top, { .name = "N          " });

    CardWithContinuation()
    {
        for (int i = 10; i < 27; ++i) // fourteen in the first cluster, three in the second
            image.addEntry(split, { .name = "X" + std::to_string(i) + "     TXT" });
        erase(image.bytes(), image.offsetOf(split), image.offsetOf(split + 1));
        for (int i = 10; i < 23; ++i)
            image.addEntry(inner, { .name = "N" + std::to_string(i) + "     TXT" });
        image.addEntry(inner, { .name = "SIDST   TXT", .cluster = split, .size = 100 });
        image.addEntry(top, { .name = "FIL     TXT" });
        image.setFAT(inner, 0); // no chain says where it continues
        erase(image.bytes(), image.entryOffset(FATImage::root, 0),
            image.entryOffset(FATImage::root, 16));
    }
};

} // namespace

TEST(LostFragments, WhatMayContinueADirectoryWaitsForIt)
{
    const CardWithContinuation card;
    const Found found(card.image.bytes());
    EXPECT_EQ(found.count(fragments + "/N/X24.TXT", {}), 1);
    EXPECT_EQ(found.count("/X24.TXT", {}), 1) << "and stands nowhere else";
}

TEST(LostFragments, DirectoriesContinueWhereTheContentBehindTheirsIsNamed)
{
    CardWithContinuation card;
    auto& image = card.image;
    const auto content = card.split + 50;
    putLE(image.bytes(), image.entryOffset(card.inner, 15) + 26, content, 2); // of the last entry
    putLE(image.bytes(), image.offsetOf(card.split + 1) + 26, content + 1, 2);
    const Found found(image.bytes());
    EXPECT_EQ(found.count(fragments + "/N/X25.TXT", {}), 1);
}

TEST(LostFragments, DirectoriesContinueWhereTheRestOfASplitNameIs)
{
    FATImage image({});
    const auto folder = image.addFolder(FATImage::root, { .name = "TABT       " }, 2);
    for (int i = 10; i < 23; ++i)
        image.addEntry(folder, { .name = "F" + std::to_string(i) + "     TXT" });
    image.addEntry(folder, { .name = "ETNAVN~1TXT", .longName = u"Et navn i to stykker.txt" });
    image.addEntry(folder, { .name = "SIDST   TXT" });
    const auto moved = image.addFile(FATImage::root, { .name = "X          " }, Bytes(512));
    const auto part = std::span(image.bytes()).subspan(image.offsetOf(folder + 1), 512);
    image.write(image.offsetOf(moved), Bytes(part.begin(), part.end()));
    image.write(image.offsetOf(folder + 1), Bytes(512, 0xEE));
    for (const auto cluster : { folder, folder + 1, moved })
        image.setFAT(cluster, 0);
    erase(
        image.bytes(), image.entryOffset(FATImage::root, 0), image.entryOffset(FATImage::root, 16));
    const Found found(image.bytes());
    EXPECT_EQ(found.count(fragments + "/Et navn i to stykker.txt", {}), 1);
    EXPECT_EQ(found.count(fragments + "/SIDST.TXT", {}), 1);
}

TEST(LostFragments, WhatAnEntryLeadsToInVainIsReadByItsContent)
{
    CardWithContinuation card;
    auto& image = card.image;
    image.addEntry(card.top,
        { .name = "\xE5"
                  "AMMEL     ",
            .attributes = 0x10,
            .cluster = card.split + 1 });
    erase(image.bytes(), image.offsetOf(card.inner), image.offsetOf(card.inner + 1));
    const Found found(image.bytes());
    EXPECT_EQ(found.count(fragments + "/X24.TXT", {}), 1);
}

TEST(LostFragments, FoldersThatTheVolumeListsAreNotListedAgain)
{
    FATImage image({});
    const auto live = image.addFolder(FATImage::root, { .name = "LEVENDE    " });
    image.addFile(live, { .name = "HER     TXT" }, patternBytes(700));
    const auto lost = image.addFolder(FATImage::root, { .name = "TABT       " });
    image.addEntry(lost, { .name = "SAMME      ", .attributes = 0x10, .cluster = live });
    image.addFile(lost, { .name = "DER     TXT" }, patternBytes(800));
    image.write(image.entryOffset(FATImage::root, 1), bytesOf("?"));
    const Found found(image.bytes());
    EXPECT_EQ(found.count("/HER.TXT", patternBytes(700)), 1);
    EXPECT_EQ(found.count(fragments + "/DER.TXT", patternBytes(800)), 1);
}

TEST(LostFragments, FoldersNamedBehindASplitSetHangBelowTheirNames)
{
    ExFATImage image({ .clusters = 300 });
    const auto inner = image.addFolder(image.root(), { .name = u"Flyttet" }); // lies in front
    image.addFile(inner, { .name = u"dyb" }, patternBytes(900));
    const auto outer = image.addFolder(image.root(), { .name = u"Ydre" }, 2);
    for (char16_t letter = u'a'; letter < u'g'; ++letter) // the last one is split
        image.addFile(outer, { .name = { letter } }, patternBytes(600, letter));
    image.addSet(outer, { .name = u"Indre", .attributes = 0x10, .cluster = inner, .size = 512 });
    image.write(0, std::span(ExFATImage({ .clusters = 300 }).bytes()).first(image.offsetOf(inner)));
    const Found found(image.bytes());
    EXPECT_EQ(found.count(fragments + "/f", patternBytes(600, u'f')), 1);
    EXPECT_EQ(found.count(fragments + "/Indre/dyb", patternBytes(900)), 1);
}

TEST(LostFragments, DeletedExFATFoldersGoOnWithTheRestOfTheirLastSet)
{
    ExFATImage image({ .clusters = 300 });
    const auto folder
        = image.addFolder(image.root(), { .name = u"Ydre", .isContiguous = false }, 2);
    const std::vector<std::u16string> names { u"a", u"b", u"c", u"d", u"e", u"f", u"g" };
    for (const auto& name : names)
        image.addFile(folder, { .name = name }, patternBytes(600, name[0]));
    const auto moved = image.allocate(1, true);
    const auto part = std::span(image.bytes()).subspan(image.offsetOf(folder + 1), 512);
    for (const auto& name : names)
        image.remove(name);
    image.write(image.offsetOf(moved), Bytes(part.begin(), part.end()));
    image.write(image.offsetOf(folder + 1), Bytes(512, 0xEE));
    image.remove(u"Ydre");
    image.setUsed(moved, false);
    for (const auto cluster : { folder, folder + 1 })
        image.setFAT(cluster, 0);
    const auto source = image.source();
    EXPECT_EQ(ExFATParser::parse(*source, 0, "", nullptr)->root->children().at(0)->note,
        "Mappen fortsætter muligvis et andet sted");
    const Found found(image.bytes());
    EXPECT_EQ(found.count("/Ydre/e", patternBytes(600, 'e')), 1);
    EXPECT_EQ(found.count("/Ydre/f", patternBytes(600, 'f')), 1) << "the set that is cut";
    EXPECT_EQ(found.count("/Ydre/g", patternBytes(600, 'g')), 1);
}

TEST(LostFragments, SetsOfWhichTheNameIsLostKeepTheirContent)
{
    ExFATImage image({ .clusters = 300 });
    const auto folder = image.addFolder(image.root(), { .name = u"Ydre" }, 2);
    for (const char16_t* name :
        { u"et meget langt navn", u"et andet langt navn", u"a", u"b", u"c" })
        image.addFile(folder, { .name = name }, patternBytes(600, 7));
    erase(image.bytes(), image.offsetOf(folder + 1), image.offsetOf(folder + 2));
    image.write(
        0, std::span(ExFATImage({ .clusters = 300 }).bytes()).first(image.offsetOf(folder)));
    const Found found(image.bytes());
    const auto last = std::to_string(folder + 10); // behind the folder, and four files of two
    EXPECT_EQ(found.count("/Uden navn (klynge " + last + ")", patternBytes(600, 7)), 1);
}

TEST(LostFragments, ExFATSectorsAreKnownByTheirSets)
{
    ExFATImage image;
    const auto folder = image.addFolder(image.root(), { .name = u"mappe" });
    for (const char16_t* name : { u"et", u"to", u"tre", u"fire", u"fem" })
        image.addFile(folder, { .name = name }, patternBytes(600));
    image.remove(u"et");
    const auto at = static_cast<std::int64_t>(image.offsetOf(folder));
    EXPECT_TRUE(ExFATParser::looksLikeDirectorySector(image.bytes(), at));
    EXPECT_FALSE(ExFATParser::looksLikeDirectorySector(image.bytes(), at + 512)) << "a file";
    Bytes sector(image.bytes().begin() + at, image.bytes().begin() + at + 512);
    for (std::size_t set = 0; set < 5; ++set) // none of them is sound any more
        sector[set * 96 + 40] ^= 1;
    EXPECT_FALSE(ExFATParser::looksLikeDirectorySector(sector));
}

/// A card that tools make, format again, and wipe.
TEST(LostFragments, FilesOfToolMadeCardsComeBackAfterFormattingAndWiping)
{
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    if (!hasProgram("mkfs.fat") || !hasProgram("mcopy"))
        GTEST_SKIP() << "needs dosfstools and mtools";
    const TemporaryFolder folder;
    std::map<std::string, Bytes> files;
    for (std::uint32_t i = 0; i < 40;
         ++i) // more than fits into a cluster, with names in several pieces
        files["/kort/DCIM/100CANON/Et langt navn nummer " + std::to_string(i) + ".jpg"]
            = patternBytes(900 + 40 * i, i);
    files["/kort/Breve/brev.txt"] = patternBytes(70'000, 77);
    for (const auto& [path, bytes] : files) {
        std::filesystem::create_directories(
            std::filesystem::path(folder / ("src" + path)).parent_path());
        writeFile(folder / ("src" + path), bytes);
    }
    const auto image = folder / "kort.img";
    const char* const losses[] = { "mkfs.fat -F 32 -s 1", "mkfs.fat -F 32 -s 4",
        "dd conv=notrunc if=/dev/zero bs=1k count=600 of=" };
    for (const std::string loss : losses) {
        SCOPED_TRACE(loss);
        std::filesystem::remove(image);
        const auto command = "mkfs.fat -C -F 32 -s 1 " + image
            + " 66560 && MTOOLS_SKIP_CHECK=1 mcopy -s -i " + image + " " + (folder / "src")
            + "/* ::/ && " + loss + (loss.ends_with("=") ? "" : " ") + image;
        std::string output;
        ASSERT_EQ(runCommand(command, &output), 0) << output;
        const Found found(*SourceOpener::openImage(image));
        EXPECT_EQ(found.files.size(), files.size());
        for (const auto& [path, bytes] : files)
            EXPECT_EQ(found.count(path.substr(5), bytes), 1)
                << path; // the root's own entries may be gone
    }
}
