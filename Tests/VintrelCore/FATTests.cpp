#include "Tests/Images/FATImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/FAT.h"
#include "VintrelCore/FAT/Entries.h"
#include "VintrelCore/FileReader.h"

#include <gtest/gtest.h>

using enum FileSystemType;

namespace {

constexpr FileSystemType allTypes[] = { fat12, fat16, fat32 };

Parsed parse(const FATImage& image)
{
    auto source = image.source();
    auto volume = FATParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

} // namespace

TEST(FAT, ListsAndReadsTheLiveTreeOfEveryWidth)
{
    for (const auto type : allTypes) {
        SCOPED_TRACE(displayName(type));
        FATImage image({ .type = type, .sectorsPerCluster = 2, .label = "KORT       " });
        const auto photo = patternBytes(5000);
        const auto folder = image.addFolder(FATImage::root, { .name = "DCIM       " }, 2);
        const auto other = image.addFile(folder, { .name = "A       TXT" }, bytesOf("hej"));
        image.addFile(folder, { .name = "IMG_0001JPG" }, photo);
        // The photo's clusters in another order than the disk's.
        const auto cluster = other + 1;
        image.write(image.offsetOf(cluster + 10), Bytes(photo.begin() + 1024, photo.begin() + 2048));
        image.write(image.offsetOf(cluster + 1), Bytes(1024, 0xEE));
        image.setFAT(cluster, cluster + 10);
        image.setFAT(cluster + 10, cluster + 2);

        const auto card = parse(image);
        ASSERT_TRUE(card.volume);
        EXPECT_EQ(card.volume->type, type);
        EXPECT_EQ(card.volume->label, "KORT");
        EXPECT_EQ(card.volume->origin, "prøve");
        EXPECT_EQ(card.volume->clusterSize, 1024u);
        EXPECT_EQ(card.volume->size, image.bytes().size());
        EXPECT_EQ(card.names(), " /DCIM /DCIM/A.TXT /DCIM/IMG_0001.JPG");
        EXPECT_EQ(card.content("/DCIM/IMG_0001.JPG"), photo);
        const auto& node = card["/DCIM/IMG_0001.JPG"];
        EXPECT_EQ(chance(node), "God");
        EXPECT_EQ(node.status, EntryStatus::existing);
        EXPECT_EQ(node.fsID, cluster);
        EXPECT_EQ(std::get<ExtentList>(node.data).size(), 3u);
        EXPECT_TRUE(node.modified);
        EXPECT_FALSE(node.created);
    }
}

TEST(FAT, DeletedFilesKeepWhatIsLeftOfThem)
{
    for (const auto type : allTypes) {
        SCOPED_TRACE(displayName(type));
        FATImage image({ .type = type });
        const auto content = patternBytes(1400);
        const auto free = image.addFile(FATImage::root, { .name = "FOTO    JPG" }, content);
        image.addFile(FATImage::root, { .name = "FOTO~1  JPG", .longName = u"Foto fra ferien.jpg" }, content);
        const auto partly = image.addFile(FATImage::root, { .name = "DELVIS  JPG" }, content);
        const auto reused = image.addFile(FATImage::root, { .name = "GENBRUGTJPG" }, content);
        image.addFile(FATImage::root, { .name = "TOM     TXT" }, {});
        for (const auto* name : { "FOTO    JPG", "FOTO~1  JPG", "DELVIS  JPG", "GENBRUGTJPG", "TOM     TXT" })
            image.remove(FATImage::root, name);
        image.setFAT(partly + 1, image.endMark());
        image.setFAT(reused, image.endMark());

        const auto card = parse(image);
        EXPECT_EQ(chance(card["/Foto fra ferien.jpg"]), "God");
        EXPECT_EQ(card.content("/Foto fra ferien.jpg"), content);
        EXPECT_EQ(card["/_OTO.JPG"].status, EntryStatus::deleted);
        EXPECT_EQ(card["/_OTO.JPG"].data, FileData(ExtentList { { image.offsetOf(free), 1400 } }));
        EXPECT_EQ(chance(card["/_ELVIS.JPG"]), "Delvis: Dele af filen kan være overskrevet");
        EXPECT_EQ(chance(card["/_ENBRUGT.JPG"]), "Ringe: Startklyngen er genbrugt af en anden fil");
        EXPECT_EQ(chance(card["/_OM.TXT"]), "God");
        EXPECT_EQ(card["/_OM.TXT"].data, FileData(ExtentList {}));
    }
}

TEST(FAT, DamagedChainsAndClusterNumbers)
{
    FATImage image({ .type = fat12 });
    const auto content = patternBytes(2000); // four clusters
    const auto cut = image.addFile(FATImage::root, { .name = "KORT    BIN" }, content);
    const auto loop = image.addFile(FATImage::root, { .name = "SLOJFE  BIN" }, content);
    const auto bad = image.addFile(FATImage::root, { .name = "DAARLIG BIN" }, content);
    image.addEntry(FATImage::root, { .name = "EN      BIN", .cluster = 1, .size = 5 });
    image.addEntry(FATImage::root, { .name = "UDENFOR BIN", .cluster = 402, .size = 5 });
    image.addEntry(FATImage::root, { .name = "SIDSTE  BIN", .cluster = 401, .size = 2000 });
    image.addEntry(FATImage::root, { .name = "X       BIN", .cluster = 401, .size = 2000 });
    image.setFAT(cut + 1, image.endMark());
    image.setFAT(loop + 2, loop);
    image.setFAT(bad, 0xFF7);
    image.remove(FATImage::root, "X       BIN");

    const auto card = parse(image);
    const struct {
        const char* path;
        const char* chance;
        std::uint64_t covered; ///< bytes that extents hold
    } cases[] = {
        { "/KORT.BIN", "Delvis: Klyngekæden er afbrudt", 1024 },
        { "/SLOJFE.BIN", "Delvis: Klyngekæden er afbrudt", 1536 },
        { "/DAARLIG.BIN", "Delvis: Klyngekæden er afbrudt", 512 }, { "/EN.BIN", "Ringe: Ugyldig startklynge", 0 },
        { "/UDENFOR.BIN", "Ringe: Ugyldig startklynge", 0 }, { "/SIDSTE.BIN", "Delvis: Klyngekæden er afbrudt", 512 },
        { "/_.BIN", "Delvis: Dele af filen kan være overskrevet", 512 }, // cut off by the end of the volume
    };
    for (const auto& [path, expected, covered] : cases) {
        EXPECT_EQ(chance(card[path]), expected) << path;
        std::uint64_t sum = 0;
        if (const auto* extents = std::get_if<ExtentList>(&card[path].data))
            for (const auto& extent : *extents)
                sum += extent.length;
        EXPECT_EQ(sum, covered) << path;
    }
}

TEST(FAT, Names)
{
    const std::u16string longest(255, u'x');
    const struct {
        FATImage::Entry entry;
        bool isDeleted;
        std::string shown;
    } cases[] = {
        { { .name = "NAME    TXT", .caseFlags = 0x18 }, false, "name.txt" },
        { { .name = "NAME    TXT", .caseFlags = 0x08 }, false, "name.TXT" },
        { { .name = "A B     C  " }, false, "AB.C" },
        { { .name = "\x05"
                    "BC     TXT" },
            false, "_BC.TXT" },
        { { .name = "R\x9DR     TXT" }, false, "R_R.TXT" },
        { { .name = "LANG~1  TXT", .longName = u"En fil på 26 tegn i alt.ok" }, false, "En fil på 26 tegn i alt.ok" },
        { { .name = "L       TXT", .longName = longest }, false, std::string(255, 'x') },
        { { .name = "EMOJI~1 TXT", .longName = u"tolv tegn ..\U0001F600" }, false,
            "tolv tegn ..\U0001F600" }, // a pair across two pieces
        { { .name = "\x05"
                    "TA~1   TXT",
              .longName = u"Õta lang.txt" },
            false, "Õta lang.txt" },
        { { .name = "BILL~1  JPG", .longName = u"Billede.jpg" }, true, "Billede.jpg" },
        { { .name = "\x9DL~1    TXT", .longName = u"øl og vand.txt" }, true, "øl og vand.txt" }, // Ø in code page 850
        { { .name = "\x8FRSRA~1 TXT", .longName = u"Årsrapport.txt" }, true, "Årsrapport.txt" },
        { { .name = "\x92"
                    "BLE~1  TXT",
              .longName = u"æblekage.txt" },
            true, "æblekage.txt" },
        { { .name = "KORT    TXT" }, true, "_ORT.TXT" },
        { { .name = "X          " }, true, "_" },
    };
    for (const auto& [entry, isDeleted, shown] : cases) {
        FATImage image({ .type = fat12 });
        image.addEntry(FATImage::root, entry);
        if (isDeleted)
            image.remove(FATImage::root, entry.name);
        const auto card = parse(image);
        EXPECT_EQ(card.names(), " /" + shown);
    }
}

TEST(FAT, LongNamesThatDoNotBelongAreIgnored)
{
    const struct {
        const char* what;
        std::size_t entry; ///< 0 and 1 are the pieces, 2 is the short entry
        std::size_t byte;
        std::uint8_t value;
    } damages[] = {
        { "another checksum", 1, 13, 0x00 },
        { "another name", 2, 3, 'Q' },
        { "first piece without its mark", 0, 0, 0x02 },
        { "wrong order", 1, 0, 0x03 },
        { "a piece is deleted", 1, 0, 0xE5 },
        { "a label between", 1, 11, 0x08 },
    };
    for (const auto& [what, entry, byte, value] : damages) {
        FATImage image({ .type = fat12 });
        image.addEntry(FATImage::root, { .name = "LANG~1  TXT", .longName = u"Navn i to stykker.txt" });
        image.bytes()[image.entryOffset(FATImage::root, entry) + byte] = value;
        const auto names = parse(image).names();
        EXPECT_TRUE(names == " /LANG~1.TXT" || names == " /LANQ~1.TXT" || names == " /LANG~1.TXT /LANQ~1.TXT")
            << what << ":" << names;
    }
}

TEST(FAT, EntriesThatCannotBeAreSkipped)
{
    FATImage image({ .type = fat12 });
    for (const auto* name :
        { "A*B     TXT", "           ", "A\x1F      TXT", "A[B     TXT", ".          ", "..         " })
        image.addEntry(FATImage::root, { .name = name });
    image.addEntry(FATImage::root, { .name = "MAERKAT    ", .attributes = 0x08 });
    image.addEntry(FATImage::root, { .name = "ANDEN      ", .attributes = 0x08 });
    image.addEntry(FATImage::root, { .name = "GYLDIG  TXT" });
    image.bytes()[image.entryOffset(FATImage::root, 9)] = 0; // the end …
    image.addEntry(FATImage::root, { .name = "SKJULT  TXT" });
    image.addEntry(FATImage::root, { .name = "BAGEFTERTXT" });
    image.bytes()[image.entryOffset(FATImage::root, 9)] = 0; // … and what lies behind it is not looked at
    const auto card = parse(image);
    EXPECT_EQ(card.names(), " /GYLDIG.TXT");
    EXPECT_EQ(card.volume->label, "MAERKAT");
}

TEST(FAT, DeletedFoldersAreWalkedWhileTheirClustersHold)
{
    FATImage image({ .type = fat32 });
    const auto content = patternBytes(700);
    const auto folder = image.addFolder(FATImage::root, { .name = "FERIE      " }, 2);
    for (int i = 0; i < 20; ++i) // more than a cluster's sixteen
        image.addFile(folder, { .name = "IMG_00" + std::to_string(10 + i) + "JPG" }, content);
    const auto inner = image.addFolder(folder, { .name = "INDRE      " });
    image.addFile(inner, { .name = "DYB     TXT" }, bytesOf("dyb"));
    const auto overwritten = image.addFolder(FATImage::root, { .name = "VAEK       " });
    const auto full = image.addFolder(FATImage::root, { .name = "FULD       " });
    const auto neighbour = image.addFolder(FATImage::root, { .name = "NABO       " });
    for (int i = 0; i < 14; ++i)
        image.addEntry(full, { .name = "F" + std::to_string(10 + i) + "     TXT" });
    image.addFile(neighbour, { .name = "NABO    TXT" }, bytesOf("nabo"));
    image.write(image.offsetOf(overwritten), Bytes(512, 'x'));
    for (const auto* name : { "FERIE      ", "VAEK       ", "FULD       ", "NABO       " })
        image.remove(FATImage::root, name);

    const auto card = parse(image);
    EXPECT_EQ(card["/_ERIE"].status, EntryStatus::deleted);
    EXPECT_EQ(card["/_ERIE"].files().size(), 20u);
    EXPECT_EQ(card["/_ERIE/IMG_0010.JPG"].status, EntryStatus::deleted);
    EXPECT_EQ(card.content("/_ERIE/INDRE/DYB.TXT"), bytesOf("dyb"));
    EXPECT_EQ(*card["/_AEK"].note, "Mappens indhold er overskrevet");
    EXPECT_EQ(card["/_ULD"].children().size(), 14u) << "the neighbour's entries are its own";
    EXPECT_EQ(card["/_ABO"].children().size(), 1u);
}

TEST(FAT, LiveFoldersComeBeforeDeletedOnesThatClaimTheSameCluster)
{
    FATImage image({ .type = fat32 });
    const auto folder = image.addFolder(FATImage::root, { .name = "GAMMEL     " });
    image.remove(FATImage::root, "GAMMEL     ");
    image.setFAT(folder, image.endMark());
    image.addEntry(FATImage::root, { .name = "NY         ", .attributes = 0x10, .cluster = folder });
    image.addFile(folder, { .name = "NYT     TXT" }, bytesOf("nyt"));
    const auto card = parse(image);
    EXPECT_EQ(card["/NY/NYT.TXT"].status, EntryStatus::existing);
    EXPECT_TRUE(card["/_AMMEL"].children().empty());
}

TEST(FAT, DirectoriesThatLoopOrNestWithoutEnd)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto loop = image.addFolder(FATImage::root, { .name = "LOKKE      " });
    image.setFAT(loop, loop);
    for (int i = 0; i < 14; ++i)
        image.addEntry(loop, { .name = "F" + std::to_string(10 + i) + "     TXT" });
    image.addEntry(FATImage::root, { .name = "IGEN       ", .attributes = 0x10, .cluster = loop });
    image.addEntry(FATImage::root, { .name = "ROD        ", .attributes = 0x10, .cluster = 2 });
    std::uint32_t folder = FATImage::root;
    for (int level = 1; level <= 70; ++level)
        folder = image.addFolder(folder, { .name = "D" + std::to_string(100 + level) + "       " });

    const auto card = parse(image);
    EXPECT_EQ(card["/LOKKE"].children().size(), 14u);
    EXPECT_TRUE(card["/IGEN"].children().empty());
    EXPECT_TRUE(card["/ROD"].children().empty());
    std::size_t deepest = 0;
    card.volume->root->forEachDescendant(
        [&](const FileNode&, std::size_t depth) { deepest = std::max(deepest, depth); });
    EXPECT_EQ(deepest, 64u); // the directory at level 63 is read, what it lists is not
}

TEST(FAT, ChainsThatShareTheirClustersDoNotMultiplyTheVolume)
{
    // A directory of 300 clusters whose every entry claims to be a folder, or a huge file, that begins further along
    // it.
    for (const bool areFolders : { true, false }) {
        FATImage image({ .type = fat32 });
        const auto crowded = image.addFolder(FATImage::root, { .name = "MANGE      " }, 300);
        for (std::uint32_t i = 0; i < 300 * 16 - 2; ++i)
            image.addEntry(crowded,
                { .name = "D" + std::to_string(1'000'000 + i) + "   ",
                    .attributes = static_cast<std::uint8_t>(areFolders ? 0x10 : 0x20),
                    .cluster = crowded + i % 300,
                    .size = 0xFFFFFFFF });
        const auto card = parse(image);
        const auto totals = card.volume->root->totals();
        EXPECT_GE(totals.folders + totals.files, 300u * 16 - 2);
        EXPECT_LE(totals.folders + totals.files, image.bytes().size() / 32);
        std::size_t extents = 0;
        for (const auto* node : card.volume->root->allFiles())
            extents += std::get<ExtentList>(node->data).size();
        EXPECT_LE(extents, 4u * 402);
    }
}

TEST(FAT, UnreadableSectorsOfTheFirstFATComeFromTheSecond)
{
    FATImage image({ .type = fat16 });
    image.addFile(FATImage::root, { .name = "A       BIN" }, patternBytes(1500));
    const auto readWithBadFAT = [&](std::uint64_t from, std::uint64_t to) {
        auto source = image.source();
        source->addSimulatedBadRange({ image.fatOffset() + from, image.fatOffset() + to });
        const auto volume = FATParser::parse(*source, 0, "", nullptr);
        return chance(*volume->root->children().at(0));
    };
    EXPECT_EQ(readWithBadFAT(0, 512), "God");
    EXPECT_EQ(readWithBadFAT(0, 2 * image.fatSize()), "Delvis: Klyngekæden er afbrudt");
    // The second copy is asked sector by sector: what the first one still holds stands.
    image.write(image.fatOffset() + image.fatSize(), Bytes(512, 0xFF));
    EXPECT_EQ(readWithBadFAT(512, 1024), "God");
}

TEST(FAT, WithoutAFATFilesLieInOnePiece)
{
    FATImage image({ .type = fat32 });
    const auto content = patternBytes(1500);
    const auto cluster = image.addFile(FATImage::root, { .name = "A       BIN" }, content);
    image.addFile(FATImage::root, { .name = "B       BIN" }, content);
    image.remove(FATImage::root, "B       BIN");
    const Bytes tooLarge { 0x01, 0x00, 0x18, 0x00 }; // 1,572,865 sectors: 768 MiB and one sector
    auto boot = Bytes(image.bytes().begin(), image.bytes().begin() + 512);
    std::copy(tooLarge.begin(), tooLarge.end(), boot.begin() + 36);
    boot[16] = 1;
    std::copy_n("\xFF\xFF\xFF\x0F", 4, boot.begin() + 32);

    // The data of such a volume would begin behind so large a FAT; only the geometry is asked here.
    const auto geometry = FATGeometry::from(boot, fat32, 0);
    ASSERT_TRUE(geometry);
    auto source = image.source();
    FATContext context(*source, *geometry);
    EXPECT_TRUE(context.fatUnavailable());
    EXPECT_EQ(context.entry(cluster), 0u);
    const auto chain = context.chain(cluster, 3);
    EXPECT_TRUE(chain.isComplete);
    EXPECT_EQ(chain.clusters, (std::vector<std::uint32_t> { cluster, cluster + 1, cluster + 2 }));
    EXPECT_TRUE(context.areFree(2, 1000));

    const auto volume = FATParser::parse(*source, 0, "", nullptr, ByteView(boot));
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->notes,
        std::vector<std::string> { "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende." });
}

TEST(FAT, BootSectorsFromElsewhereAndImpossibleOnes)
{
    FATImage image({ .type = fat16 });
    image.addFile(FATImage::root, { .name = "A       TXT" }, bytesOf("a"));
    const Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    image.write(0, Bytes(512));
    auto source = image.source();
    EXPECT_FALSE(FATParser::parse(*source, 0, "", nullptr));
    const auto volume = FATParser::parse(*source, 0, "", nullptr, ByteView(boot));
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->root->children().size(), 1u);

    EXPECT_FALSE(FATGeometry::from(boot, fat16, std::numeric_limits<std::uint64_t>::max() - 5));
    EXPECT_FALSE(FATGeometry::from(ByteView(boot).sub(0, 12), fat16, 0));
    EXPECT_FALSE(FATGeometry::from({}, fat16, 0));
}

TEST(FAT, RecognisesDirectorySectors)
{
    FATImage image({ .type = fat12 });
    const auto folder = image.addFolder(FATImage::root, { .name = "MAPPE      " });
    const auto sector
        = [&] { return ByteView(image.bytes()).sub(static_cast<std::int64_t>(image.offsetOf(folder)), 512); };
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(sector())) << "two entries are too few";
    image.addEntry(folder, { .name = "LANG~1  TXT", .longName = u"Langt navn.txt" });
    EXPECT_TRUE(FATParser::looksLikeDirectorySector(sector()));
    EXPECT_TRUE(FATParser::looksLikeDirectorySector(image.bytes(), static_cast<std::int64_t>(image.offsetOf(folder))));
    for (int i = 0; i < 11; ++i)
        image.addEntry(folder, { .name = "+,;=[]  TXT" }); // odd characters that a listing would not take
    EXPECT_TRUE(FATParser::looksLikeDirectorySector(sector())) << "full, without an end";

    const struct {
        const char* what;
        std::size_t byte;
        std::uint8_t value;
    } damages[] = {
        { "first byte of a name", 5 * 32, 0x20 },
        { "control character", 5 * 32 + 4, 0x1F },
        { "forbidden character", 5 * 32 + 4, '?' },
        { "attributes", 5 * 32 + 11, 64 },
        { "ticks", 5 * 32 + 13, 200 },
        { "type of a long-name piece", 2 * 32 + 12, 1 },
        { "cluster of a long-name piece", 2 * 32 + 26, 1 },
        { "end with something behind it", 10 * 32, 0 },
    };
    for (const auto& [what, byte, value] : damages) {
        Bytes copy(sector().span().begin(), sector().span().end());
        copy[byte] = value;
        EXPECT_FALSE(FATParser::looksLikeDirectorySector(copy)) << what;
    }
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(Bytes(512)));
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(sector().sub(0, 500)));
}

TEST(FAT, LostFragmentsAreListedOnce)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto content = patternBytes(1400);
    const auto live = image.addFolder(FATImage::root, { .name = "LEVENDE    " });
    image.addFile(live, { .name = "HER     TXT" }, bytesOf("her"));
    const auto lost = image.addFolder(FATImage::root, { .name = "TABT       " });
    const auto split = image.addFile(lost, { .name = "DELT    BIN" }, content);
    const auto gone = image.addFile(lost, { .name = "SLETTET BIN" }, content);
    image.remove(lost, "SLETTET BIN");
    const auto inner = image.addFolder(lost, { .name = "INDRE      " }, 2);
    for (int i = 0; i < 20; ++i)
        image.addFile(inner, { .name = "I" + std::to_string(10 + i) + "     TXT" }, bytesOf("i"));
    image.setFAT(split, 500); // a file in two pieces, whose chain still stands
    image.setFAT(500, split + 2);
    image.write(image.offsetOf(500), Bytes(content.begin() + 512, content.begin() + 1024));
    image.write(image.offsetOf(split + 1), Bytes(512, 0xEE));
    // A file that looks like a directory inside, and belongs to a live file.
    Bytes directoryLike(image.bytes().begin() + static_cast<std::ptrdiff_t>(image.offsetOf(inner)),
        image.bytes().begin() + static_cast<std::ptrdiff_t>(image.offsetOf(inner)) + 512);
    const auto inFile = image.addFile(FATImage::root, { .name = "BACKUP  IMG" }, directoryLike);
    // The entry of the lost folder vanishes without a trace.
    image.write(image.entryOffset(FATImage::root, 1), bytesOf("?"));

    const auto card = parse(image);
    EXPECT_EQ(card.names(), " /LEVENDE /LEVENDE/HER.TXT /BACKUP.IMG");
    std::vector<std::uint64_t> sectors;
    for (const auto cluster : { lost, inner, inner + 1, live, inFile, lost })
        sectors.push_back(image.offsetOf(cluster));
    sectors.push_back(1);
    sectors.push_back(image.bytes().size() + 512);
    auto folder = FATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->name, "$Tabte mappefragmenter");
    EXPECT_EQ(folder->status, EntryStatus::orphaned);
    ASSERT_EQ(folder->children().size(), 3u);
    const auto& [innerNode, deletedNode, splitNode]
        = std::tie(*folder->children()[0], *folder->children()[1], *folder->children()[2]);
    EXPECT_EQ(innerNode.name, "INDRE");
    EXPECT_EQ(innerNode.children().size(), 20u);
    EXPECT_EQ(deletedNode.name, "_LETTET.BIN");
    EXPECT_EQ(deletedNode.fsID, gone);
    EXPECT_EQ(splitNode.name, "DELT.BIN");
    EXPECT_EQ(splitNode.status, EntryStatus::deleted);
    EXPECT_EQ(chance(splitNode), "God");
    EXPECT_EQ(FileReader::readPrefix(splitNode, *card.source, 1_MiB), content);

    EXPECT_FALSE(FATParser::lostEntries(*card.volume, sectors, nullptr)) << "everything is claimed by now";
}

TEST(FAT, FragmentsGoOnBehindAnEndOfDirectory)
{
    FATImage image({ .type = fat32 });
    const auto first = image.addFolder(FATImage::root, { .name = "A          " });
    image.addEntry(first, { .name = "I_A     TXT" });
    const auto second = image.addFolder(FATImage::root, { .name = "B          " });
    image.addEntry(second, { .name = "I_B     TXT" });
    image.bytes()[image.entryOffset(FATImage::root, 0)] = 0;
    const auto card = parse(image);
    const std::uint64_t sectors[] = { image.offsetOf(second), image.offsetOf(first) };
    const auto folder = FATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->children().size(), 2u);
}

TEST(FAT, CancellationKeepsWhatWasRead)
{
    FATImage image({ .type = fat32 });
    image.addFolder(FATImage::root, { .name = "A          " });
    auto source = image.source();
    WorkProgress progress;
    progress.cancel();
    const auto volume = FATParser::parse(*source, 0, "", &progress);
    ASSERT_TRUE(volume);
    EXPECT_TRUE(volume->root->children().empty());
}
