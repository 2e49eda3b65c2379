#include "Tests/Images/FATImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/FAT/BootSector.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FAT/Reader.h"

#include <gtest/gtest.h>

using enum FileSystemType;

namespace {

constexpr auto root = FATImage::root;

Parsed parse(const FATImage& image, ByteRange unreadable = {})
{
    auto source = image.source();
    source->addSimulatedBadRange(unreadable);
    auto volume = FATParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

} // namespace

class FATOfEveryWidth : public ::testing::TestWithParam<FileSystemType> { };

TEST_P(FATOfEveryWidth, ListsAndReadsTheLiveTree)
{
    FATImage image({ .type = GetParam(), .sectorsPerCluster = 2, .label = "KORT       " });
    const auto photo = patternBytes(5000);
    const auto folder = image.addFolder(root, { .name = "DCIM       " }, 2);
    const auto cluster = image.addFile(folder, { .name = "IMG_0001JPG" }, photo);
    image.addFile(folder, { .name = "A       TXT" }, bytesOf("hej"));
    // The photo's clusters in another order than the disk's.
    image.write(image.offsetOf(cluster + 100), std::span(photo).subspan(1024, 1024));
    image.write(image.offsetOf(cluster + 1), Bytes(1024, 0xEE));
    image.setFAT(cluster, cluster + 100);
    image.setFAT(cluster + 100, cluster + 2);
    const auto content = patternBytes(2800);
    const auto free = image.addFile(root, { .name = "FOTO    JPG" }, content);
    image.addFile(root, { .name = "FOTO~1  JPG", .longName = u"Foto fra ferien.jpg" }, content);
    const auto partly = image.addFile(root, { .name = "DELVIS  JPG" }, content);
    const auto reused = image.addFile(root, { .name = "GENBRUGTJPG" }, content);
    image.addFile(root, { .name = "TOM     TXT" }, {});
    for (const auto* name :
        { "FOTO    JPG", "FOTO~1  JPG", "DELVIS  JPG", "GENBRUGTJPG", "TOM     TXT" })
        image.remove(root, name);
    image.setFAT(partly + 2, image.endMark());
    image.setFAT(reused, image.endMark());

    const auto card = parse(image);
    ASSERT_TRUE(card.volume);
    EXPECT_EQ(card.volume->title(), "KORT (" + std::string(displayName(GetParam())) + ")");
    EXPECT_EQ(card.volume->clusterSize, 1024u);
    EXPECT_EQ(card.volume->size, image.bytes().size());
    EXPECT_EQ(card.names(),
        " /DCIM /DCIM/A.TXT /DCIM/IMG_0001.JPG /_ELVIS.JPG /_ENBRUGT.JPG /_OM.TXT /_OTO.JPG /Foto "
        "fra ferien.jpg");
    EXPECT_EQ(card.content("/DCIM/IMG_0001.JPG"), photo);
    EXPECT_EQ(chance(card["/DCIM/IMG_0001.JPG"]), "God");
    EXPECT_EQ(card["/DCIM/IMG_0001.JPG"].modified, TimeConversion::fromDOS(0x5B43, 0x6000));
    EXPECT_EQ(card.content("/Foto fra ferien.jpg"), content);
    EXPECT_EQ(card["/_OTO.JPG"].status, EntryStatus::deleted);
    EXPECT_EQ(card["/_OTO.JPG"].data, FileData(ExtentList { { image.offsetOf(free), 2800 } }));
    EXPECT_EQ(chance(card["/_ELVIS.JPG"]), "Delvis: Dele af filen kan være overskrevet");
    EXPECT_EQ(chance(card["/_ENBRUGT.JPG"]), "Ringe: Startklyngen er genbrugt af en anden fil");
    EXPECT_EQ(chance(card["/_OM.TXT"]), "God");
}

INSTANTIATE_TEST_SUITE_P(FAT, FATOfEveryWidth, ::testing::Values(fat12, fat16, fat32),
    [](const auto& parameter) { return std::string(displayName(parameter.param)); });

TEST(FAT, DamagedChainsGiveWhatTheyStillHold)
{
    FATImage image({ .type = fat12 });
    const auto content = patternBytes(2000); // four clusters
    const auto cut = image.addFile(root, { .name = "KORT    BIN" }, content);
    const auto loop = image.addFile(root, { .name = "SLOJFE  BIN" }, content);
    const auto bad = image.addFile(root, { .name = "DAARLIG BIN" }, content);
    image.addEntry(root, { .name = "UDENFOR BIN", .cluster = 402, .size = 5 });
    image.addEntry(root, { .name = "X       BIN", .cluster = 401, .size = 2000 });
    image.remove(root, "X       BIN");
    image.setFAT(cut + 1, image.endMark());
    image.setFAT(loop + 2, loop);
    image.setFAT(bad, 0xFF7);

    const struct {
        const char* path;
        const char* chance;
        FileData data;
    } cases[] = {
        { "/KORT.BIN", "Delvis: Klyngekæden er afbrudt",
            ExtentList { { image.offsetOf(cut), 1024 } } },
        { "/SLOJFE.BIN", "Delvis: Klyngekæden er afbrudt",
            ExtentList { { image.offsetOf(loop), 1536 } } },
        { "/DAARLIG.BIN", "Delvis: Klyngekæden er afbrudt",
            ExtentList { { image.offsetOf(bad), 512 } } },
        { "/UDENFOR.BIN", "Ringe: Ugyldig startklynge", NoData {} },
        { "/_.BIN", "Delvis: Dele af filen kan være overskrevet",
            ExtentList { { image.offsetOf(401), 512 } } },
    };
    const auto card = parse(image);
    for (const auto& [path, expected, data] : cases) {
        EXPECT_EQ(chance(card[path]), expected) << path;
        EXPECT_EQ(card[path].data, data) << path;
    }
}

TEST(FAT, ShowsLongNamesThatBelongAndElseShortOnes)
{
    const struct {
        FATImage::Entry entry;
        bool isDeleted;
        std::string shown;
    } cases[] = {
        { { .name = "NAME    TXT", .caseFlags = 0x18 }, false, "name.txt" },
        { { .name = "R\x9DR A   TXT", .caseFlags = 0x08 }, false, "r_ra.TXT" },
        { { .name = "L       TXT", .longName = std::u16string(255, u'x') }, false,
            std::string(255, 'x') },
        { { .name = "EMOJI~1 TXT", .longName = u"tolv tegn ..\U0001F600" }, false,
            "tolv tegn ..\U0001F600" }, // a pair across two pieces
        { { .name = "\xE5TA~1   TXT", .longName = u"Õta lang.txt" }, false, "Õta lang.txt" },
        { { .name = "BILL~1  JPG", .longName = u"Billede.jpg" }, true, "Billede.jpg" },
        { { .name = "\x8FRSRA~1 TXT", .longName = u"årsrapport.txt" }, true,
            "årsrapport.txt" }, // Å in code page 850
        { { .name = "X          " }, true, "_" },
    };
    for (const auto& [entry, isDeleted, shown] : cases) {
        FATImage image({ .type = fat12 });
        image.addEntry(root, entry);
        if (isDeleted)
            image.remove(root, entry.name);
        if (entry.name[0] == '\xE5') // stored as another letter, but not for the checksum
            image.bytes()[image.entryOffset(root, 1)] = 0x05;
        EXPECT_EQ(parse(image).names(), " /" + shown);
    }
}

TEST(FAT, EntriesAndLongNamesThatCannotBeAreSkipped)
{
    const struct {
        const char* what;
        std::size_t entry; ///< 0 and 1 are the pieces, 2 is the short entry
        std::size_t byte;
        std::uint8_t value;
        const char* names;
    } damages[] = {
        { "none", 0, 0, 0x42, " /GYLDIG.TXT /Navn i to stykker.txt" },
        { "another checksum", 1, 13, 0x00, " /GYLDIG.TXT /LANG~1.TXT" },
        { "another name", 2, 3, 'Q', " /GYLDIG.TXT /LANQ~1.TXT" },
        { "first piece without its mark", 0, 0, 0x02, " /GYLDIG.TXT /LANG~1.TXT" },
        { "wrong order", 1, 0, 0x03, " /GYLDIG.TXT /LANG~1.TXT" },
        { "a piece is deleted", 1, 0, 0xE5, " /GYLDIG.TXT /LANG~1.TXT" },
    };
    for (const auto& [what, entry, byte, value, names] : damages) {
        FATImage image({ .type = fat12 });
        image.addEntry(root, { .name = "LANG~1  TXT", .longName = u"Navn i to stykker.txt" });
        image.bytes()[image.entryOffset(root, entry) + byte] = value;
        for (const auto* name :
            { "A*B     TXT", "           ", "A\x1F      TXT", ".          ", "..         " })
            image.addEntry(root, { .name = name });
        image.addEntry(root, { .name = "MAERKAT    ", .attributes = 0x08 });
        image.addEntry(root, { .name = "ANDEN      ", .attributes = 0x08 });
        image.addEntry(root, { .name = "GYLDIG  TXT" });
        image.addEntry(root,
            { .name = std::string(11, '\0') }); // the end; what lies behind it is not looked at
        image.addEntry(root, { .name = "SKJULT  TXT" });
        const auto card = parse(image);
        EXPECT_EQ(card.names(), names) << what;
        EXPECT_EQ(card.volume->label, "MAERKAT");
    }
}

TEST(FAT, DeletedFoldersAreWalkedWhileTheirClustersHold)
{
    FATImage image({ .type = fat32 });
    const auto folder = image.addFolder(root, { .name = "FERIE      " }, 2);
    for (int i = 0; i < 20; ++i) // more than a cluster's sixteen
        image.addFile(
            folder, { .name = "IMG_00" + std::to_string(10 + i) + "JPG" }, patternBytes(700));
    const auto inner = image.addFolder(folder, { .name = "INDRE      " });
    image.addFile(inner, { .name = "DYB     TXT" }, bytesOf("dyb"));
    const auto overwritten = image.addFolder(root, { .name = "VAEK       " });
    image.write(image.offsetOf(overwritten), Bytes(512, 'x'));
    const auto full = image.addFolder(root, { .name = "FULD       " });
    image.addFolder(root, { .name = "NABO       " });
    for (int i = 0; i < 14; ++i)
        image.addEntry(full, { .name = "F" + std::to_string(10 + i) + "     TXT" });
    const auto taken = image.addFolder(root, { .name = "GAMMEL     " });
    for (const auto* name :
        { "FERIE      ", "VAEK       ", "FULD       ", "NABO       ", "GAMMEL     " })
        image.remove(root, name);
    image.setFAT(taken, image.endMark());
    image.addEntry(root, { .name = "NY         ", .attributes = 0x10, .cluster = taken });
    image.addFile(taken, { .name = "NYT     TXT" }, bytesOf("nyt"));

    const auto card = parse(image);
    EXPECT_EQ(card["/_ERIE"].files().size(), 20u);
    EXPECT_EQ(card["/_ERIE/IMG_0010.JPG"].status, EntryStatus::deleted);
    EXPECT_EQ(card.content("/_ERIE/INDRE/DYB.TXT"), bytesOf("dyb"));
    EXPECT_EQ(*card["/_AEK"].note, "Mappens indhold er overskrevet");
    EXPECT_EQ(card["/_ULD"].children().size(), 14u) << "the neighbour's entries are its own";
    EXPECT_EQ(card["/NY/NYT.TXT"].status, EntryStatus::existing) << "live folders come first";
}

TEST(FAT, DirectoriesThatLoopOrNestTooDeepAreReadOnce)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto loop = image.addFolder(root, { .name = "LOKKE      " });
    image.setFAT(loop, loop);
    for (int i = 0; i < 14; ++i)
        image.addEntry(loop, { .name = "F" + std::to_string(10 + i) + "     TXT" });
    image.addEntry(root, { .name = "IGEN       ", .attributes = 0x10, .cluster = loop });
    auto folder = root;
    for (int level = 1; level <= 70; ++level)
        folder = image.addFolder(folder, { .name = "D          " });
    const auto card = parse(image);
    EXPECT_EQ(card["/LOKKE"].children().size(), 14u);
    EXPECT_TRUE(card["/IGEN"].children().empty());
    std::string deepest = "/D";
    for (int level = 2; level <= 64; ++level)
        deepest += "/D";
    EXPECT_TRUE(card[deepest]
                    .children()
                    .empty()); // the directory at level 63 is read, what it lists is not
}

TEST(FAT, FilesThatShareClustersDoNotMultiplyTheVolume)
{
    // A directory whose every entry claims to be a huge file that begins further along it.
    FATImage crowded({ .type = fat32 });
    const auto shared = crowded.addFolder(root, { .name = "MANGE      " }, 300);
    for (std::uint32_t i = 0; i < 300 * 16 - 2; ++i)
        crowded.addEntry(
            shared, { .name = "FIL        ", .cluster = shared + i % 300, .size = 0xFFFFFFFF });
    std::size_t extents = 0;
    const auto many = parse(crowded);
    for (const auto* node : many.volume->root->allFiles())
        extents += std::get<ExtentList>(node->data).size();
    EXPECT_LE(extents, 4u * 402);
}

TEST(FAT, UnreadableSectorsOfTheFirstFATComeFromTheSecond)
{
    FATImage image({ .type = fat16 });
    image.addFile(root, { .name = "A       BIN" }, patternBytes(1500));
    const auto fat = image.fatOffset();
    EXPECT_EQ(chance(parse(image, { fat, fat + 512 })["/A.BIN"]), "God");
    EXPECT_EQ(chance(parse(image, { fat, fat + 2 * image.fatSize() })["/A.BIN"]),
        "Delvis: Klyngekæden er afbrudt");
    // The second copy is asked sector by sector: what the first one still holds stands.
    image.write(fat + image.fatSize(), Bytes(512, 0xFF));
    EXPECT_EQ(chance(parse(image, { fat + 512, fat + 1024 })["/A.BIN"]), "God");
}

TEST(FAT, ReadsAVolumeByABootSectorFromElsewhere)
{
    FATImage image({ .type = fat32 });
    image.addFile(root, { .name = "A       TXT" }, bytesOf("a"));
    const Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    image.write(0, Bytes(512));
    auto source = image.source();
    EXPECT_FALSE(FATParser::parse(*source, 0, "", nullptr));
    EXPECT_EQ(
        FATParser::parse(*source, 0, "", nullptr, ByteView(boot))->root->children().size(), 1u);
    EXPECT_FALSE(FATGeometry::from(
        FATBootSector::from(boot), std::numeric_limits<std::uint64_t>::max() - 5));
}

TEST(FAT, FilesLieInOnePieceWhereTheFATIsTooLargeToBeTrue)
{
    const FATImage image({ .type = fat32 });
    Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    const auto source = image.source();
    putLE(boot, 16, 1, 1);
    putLE(boot, 32, 0x0FFFFFFF, 4);
    putLE(boot, 36, 1'572'865, 4); // 768 MiB and one sector
    FATContext context(*source, FATGeometry::from(FATBootSector::from(boot), 0).value());
    EXPECT_EQ(context.chain(5, 3).clusters, (std::vector<std::uint32_t> { 5, 6, 7 }));
    EXPECT_TRUE(context.areFree(2, 1000));
    EXPECT_EQ(FATParser::parse(*source, 0, "", nullptr, ByteView(boot))->notes,
        std::vector<std::string> {
            "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende." });
}

TEST(FAT, ProbeAcceptsTheJumpsThatBeginBootSectors)
{
    auto boot = FATImage({ .type = fat16 }).bytes();
    for (const int jump : { 0xE8, 0xE9, 0xEB }) {
        putLE(boot, 0, static_cast<unsigned>(jump), 1);
        EXPECT_EQ(FATParser::probe(boot), fat16) << jump;
    }
    for (const int other : { 0x00, 0x33, 0xE7, 0xEA, 0xFA }) {
        putLE(boot, 0, static_cast<unsigned>(other), 1);
        EXPECT_FALSE(FATParser::probe(boot)) << other;
    }
}

TEST(FAT, BackupsSayWhereTheirVolumeBegins)
{
    const struct {
        FileSystemType type;
        std::uint64_t backupSector, offset;
        std::optional<std::uint64_t> start;
    } rows[] = {
        { fat32, 6, 100 * 512, 94 * 512 },
        { fat32, 6, 6 * 512, 0 },
        { fat32, 6, 5 * 512, std::nullopt },
        { fat32, 0, 100 * 512, std::nullopt },
        { fat16, 6, 100 * 512, std::nullopt },
    };
    for (const auto& [type, backupSector, offset, start] : rows) {
        auto boot = FATImage({ .type = type }).bytes();
        putLE(boot, 50, backupSector, 2);
        EXPECT_EQ(FATParser::startByBackup(boot, offset), start) << offset;
    }
}

TEST(FAT, FilesOfLostFragmentsLeaveLiveFilesTheirClusters)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto content = patternBytes(1400); // three clusters
    const auto live = image.addFile(root, { .name = "LEVENDE BIN" }, content);
    const auto lost = image.addFolder(root, { .name = "TABT       " });
    image.addEntry(lost, { .name = "TAGET   BIN", .cluster = live, .size = 1400 });
    image.addFile(lost, { .name = "EGEN    BIN" }, content);
    image.write(image.entryOffset(root, 1), bytesOf("?")); // the folder's entry vanishes

    const auto card = parse(image);
    const std::uint64_t sectors[] = { image.offsetOf(lost) };
    const auto folder = FATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_TRUE(folder);
    ASSERT_EQ(folder->children().size(), 2u);
    EXPECT_EQ(chance(*folder->children()[0]), "God") << "its chain is its own";
    EXPECT_EQ(chance(*folder->children()[1]), "Ringe: Startklyngen er genbrugt af en anden fil");
}

TEST(FAT, LostFilesLeaveLiveDirectoriesTheirClusters)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto live = image.addFolder(root, { .name = "LEVENDE    " });
    const auto lost = image.addFolder(root, { .name = "TABT       " });
    image.addEntry(lost, { .name = "PAA     BIN", .cluster = live, .size = 512 });
    image.addFile(lost, { .name = "EGEN    BIN" }, patternBytes(700));
    image.write(image.entryOffset(root, 1), bytesOf("?")); // the folder's entry vanishes
    const auto card = parse(image);
    const std::uint64_t sectors[] = { image.offsetOf(lost) };
    const auto folder = FATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_EQ(folder->children().size(), 2u);
    EXPECT_EQ(chance(*folder->children()[0]), "God");
    EXPECT_EQ(chance(*folder->children()[1]), "Ringe: Startklyngen er genbrugt af en anden fil");
}

TEST(FAT, DeletedFilesOnTheSameClustersKeepTheirLevelAndGetANote)
{
    FATImage image({ .type = fat16 });
    const auto add = [&](const char* name, std::uint32_t cluster, std::uint32_t size) {
        image.addEntry(root, { .name = name, .cluster = cluster, .size = size });
        image.remove(root, name);
    };
    add("AA      BIN", 50, 2048);
    add("BB      BIN", 53, 2048);
    add("CC      BIN", 57, 512);
    const auto gone = image.addFolder(root, { .name = "MAPPE      " });
    image.remove(root, "MAPPE      "); // it still holds its entries
    add("DD      BIN", gone, 512);
    const auto card = parse(image);
    const std::string shared = "God: Dele af filen kan være overskrevet af en anden slettet fil";
    EXPECT_EQ(chance(card["/_A.BIN"]), shared);
    EXPECT_EQ(chance(card["/_B.BIN"]), shared);
    EXPECT_EQ(chance(card["/_C.BIN"]), "God");
    EXPECT_EQ(chance(card["/_D.BIN"]), "God: Startklyngen er genbrugt af en anden fil");
}

TEST(FAT, TellsWhatItHasInUse)
{
    FATImage image({ .type = fat12 });
    const auto file = image.addFile(root, { .name = "A       BIN" }, Bytes(1400));
    image.setFAT(file + 70, 0xFF7);
    const auto card = parse(image);
    std::vector<ByteRange> ranges;
    ASSERT_TRUE(fatReader.addUsedRanges(*card.source, *card.volume, ranges));
    EXPECT_EQ(ranges,
        (std::vector<ByteRange> { { 0, image.offsetOf(2) },
            { image.offsetOf(file), image.offsetOf(file + 3) },
            { image.offsetOf(file + 70), image.offsetOf(file + 71) } }));
}

TEST(FAT, SaysWhatOfItsStructuresIsUnreadable)
{
    FATImage image({ .type = fat32 });
    const auto folder = image.addFolder(root, { .name = "MAPPE      " });
    const auto fat = image.fatOffset();
    const struct {
        ByteRange unreadable;
        std::vector<std::string> notes;
    } cases[] = {
        { { fat, fat + image.fatSize() }, {} }, // the second copy has it all
        { { fat + image.fatSize() - 512, fat + 2 * image.fatSize() },
            { "FAT-tabellen har 1 ulæselig sektor – klyngekæder kan mangle, og pladsen kan være "
              "genbrugt." } },
        { { image.offsetOf(folder), image.offsetOf(folder) + 1 },
            { "Mapperne har 1 ulæselig sektor – filer kan mangle." } },
    };
    for (const auto& [unreadable, notes] : cases)
        EXPECT_EQ(parse(image, unreadable).volume->notes, notes);
    const auto source = image.source(); // each copy lacks another sector
    source->addSimulatedBadRange({ fat, fat + 1 });
    source->addSimulatedBadRange({ fat + image.fatSize() + 512, fat + image.fatSize() + 513 });
    EXPECT_TRUE(FATParser::parse(*source, 0, "", nullptr)->notes.empty());
}

TEST(FAT, RecognisesDirectorySectors)
{
    FATImage image({ .type = fat12 });
    const auto folder = image.addFolder(root, { .name = "MAPPE      " });
    const auto place = static_cast<std::int64_t>(image.offsetOf(folder));
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(image.bytes(), place))
        << "two entries are too few";
    image.addEntry(folder, { .name = "LANG~1  TXT", .longName = u"Langt navn.txt" });
    EXPECT_TRUE(FATParser::looksLikeDirectorySector(image.bytes(), place));
    for (int i = 0; i < 11; ++i)
        image.addEntry(
            folder, { .name = "+,;=[]  TXT" }); // odd characters that a listing would not take
    EXPECT_TRUE(FATParser::looksLikeDirectorySector(image.bytes(), place))
        << "full, without an end";
    image.bytes()[image.offsetOf(folder) + 10 * 32] = 0;
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(image.bytes(), place))
        << "an end with something behind it";
    image.bytes()[image.offsetOf(folder) + 10 * 32] = 0x20;
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(image.bytes(), place))
        << "a name that cannot be";
    EXPECT_FALSE(FATParser::looksLikeDirectorySector(Bytes(512)));
}

TEST(FAT, LostFragmentsAreListedOnce)
{
    FATImage image({ .type = fat32, .clusters = 600 });
    const auto content = patternBytes(1400);
    const auto live = image.addFolder(root, { .name = "LEVENDE    " });
    image.addFile(live, { .name = "HER     TXT" }, bytesOf("her"));
    const auto beside = image.addFolder(root, { .name = "VED SIDEN  " });
    image.addEntry(beside, { .name = "VED     TXT" });
    const auto lost
        = image.addFolder(root, { .name = "TABT       " }); // behind the end of the one beside it
    const auto split = image.addFile(lost, { .name = "DELT    BIN" }, content);
    image.addFile(lost, { .name = "SLETTET BIN" }, content);
    image.remove(lost, "SLETTET BIN");
    const auto inner = image.addFolder(lost, { .name = "INDRE      " }, 2);
    for (int i = 0; i < 20; ++i)
        image.addFile(inner, { .name = "I" + std::to_string(10 + i) + "     TXT" }, bytesOf("i"));
    image.setFAT(split, 500); // a file in two pieces, whose chain still stands
    image.setFAT(500, split + 2);
    image.write(image.offsetOf(500), std::span(content).subspan(512, 512));
    image.write(image.offsetOf(split + 1), Bytes(512, 0xEE));
    // A live file that holds what looks like a directory.
    const auto sector = std::span(image.bytes()).subspan(image.offsetOf(inner), 512);
    const auto inFile
        = image.addFile(root, { .name = "BACKUP  IMG" }, Bytes(sector.begin(), sector.end()));
    // The entries of the lost folders vanish without a trace.
    for (const std::size_t number : { 1u, 2u })
        image.write(image.entryOffset(root, number), bytesOf("?"));

    const auto card = parse(image);
    EXPECT_EQ(card.names(), " /LEVENDE /LEVENDE/HER.TXT /BACKUP.IMG");
    std::vector<std::uint64_t> sectors { 1, image.bytes().size() + 512 };
    for (const auto cluster : { lost, inner, inner + 1, live, inFile, lost, beside })
        sectors.push_back(image.offsetOf(cluster));
    const auto folder = FATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->name, "$Tabte mappefragmenter");
    EXPECT_EQ(folder->status, EntryStatus::orphaned);
    std::string names;
    for (const auto& node : folder->children())
        names += node->name + " ";
    ASSERT_EQ(names, "INDRE _LETTET.BIN DELT.BIN VED.TXT ");
    EXPECT_EQ(folder->children()[0]->children().size(), 20u);
    const auto& splitNode = *folder->children()[2];
    EXPECT_EQ(splitNode.status, EntryStatus::deleted);
    EXPECT_EQ(chance(splitNode), "God");
    EXPECT_EQ(FileReader::readPrefix(splitNode, *card.source, 1_MiB), content);
    EXPECT_FALSE(FATParser::lostEntries(*card.volume, sectors, nullptr))
        << "everything is claimed by now";
}
