#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"

#include <gtest/gtest.h>

namespace {

using Record = HFSPlusImage::Record;

Parsed parse(const HFSPlusImage& image, ByteRange unreadable = {})
{
    auto source = image.source();
    source->addSimulatedBadRange(unreadable);
    auto volume = HFSPlusParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

const Record rootRecord { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true };

} // namespace

TEST(HFSPlus, ReadsLiveFilesInPiecesAndDeletedOnesFromStaleNodes)
{
    HFSPlusImage image;
    const auto content = patternBytes(2000);
    image.write(HFSPlusImage::offsetOf(200), std::span(content).first(512));
    image.write(HFSPlusImage::offsetOf(100), std::span(content).subspan(512, 512));
    image.write(HFSPlusImage::offsetOf(300), std::span(content).subspan(1024));
    image.write(HFSPlusImage::offsetOf(120), content);
    image.addOverflow(20, 2, { { 300, 2 } });
    image.addOverflow(20, 7, { { 350, 9 } }); // does not follow on
    image.setLeaf(2,
        { rootRecord, { .parent = 2, .name = u"Mappe", .id = 18, .isFolder = true },
            { .parent = 18,
                .name = u"A\u030Angstro\u0308m/x",
                .id = 20,
                .size = 2000,
                .runs = { { 200, 1 }, { 100, 1 } } } });
    image.setLeaf(4, { { .parent = 18, .name = u"flyttet", .id = 21, .modified = 9 } });
    image.chain({ 4, 2 });
    // Given up by the tree: a file that was deleted, an older state of one that lives, and another
    // of the deleted one.
    image.setLeaf(5,
        { { .parent = 18, .name = u"slettet", .id = 30, .size = 2000, .runs = { { 120, 4 } } },
            { .parent = 2, .name = u"gammelt navn", .id = 21, .modified = 0xF0000000 } });
    image.setLeaf(6, { { .parent = 18, .name = u"slettet før", .id = 30, .modified = 0 } });

    const auto disk = parse(image);
    ASSERT_TRUE(disk.volume);
    EXPECT_EQ(disk.volume->title(), "DISK (HFS+)");
    EXPECT_TRUE(disk.volume->notes.empty());
    EXPECT_EQ(disk.names(), " /Mappe /Mappe/flyttet /Mappe/slettet /Mappe/Ångström/x");
    EXPECT_EQ(disk.content("/Mappe/Ångström/x"), content);
    EXPECT_EQ(disk["/Mappe/slettet"].status, EntryStatus::deleted);
    EXPECT_EQ(disk.content("/Mappe/slettet"), content);
    EXPECT_EQ(disk["/Mappe/flyttet"].status, EntryStatus::existing)
        << "the live record wins, whatever its date";
}

TEST(HFSPlus, OfDeletedRecordsOfOneFileTheNewestCounts)
{
    const struct {
        std::uint32_t first, second; // dates, in the order of the nodes
        const char* name;
    } rows[] = { { 0xE0000001, 0xE0000000, " /første" }, { 0xE0000000, 0xE0000001, " /anden" },
        { 0xE0000000, 0xE0000000, " /første" }, { 0, 0xE0000000, " /anden" } };
    for (const auto& [first, second, name] : rows) {
        HFSPlusImage image;
        image.setLeaf(2, { rootRecord });
        image.setLeaf(3, { { .parent = 2, .name = u"første", .id = 30, .modified = first } });
        image.setLeaf(4, { { .parent = 2, .name = u"anden", .id = 30, .modified = second } });
        image.chain({ 2 });
        EXPECT_EQ(parse(image).names(), name) << first << " " << second;
    }
}

TEST(HFSPlus, AVolumeIsToldByTheHeaderInItsSecondKilobyte)
{
    const struct {
        const char* what;
        std::uint64_t at, value; // of the header
        int width;
        bool isHeader;
    } rows[] = { { "HFS+", 0, 0x482B0004, 4, true }, { "HFSX", 0, 0x48580005, 4, true },
        { "HFSX with the version of HFS+", 0, 0x48580004, 4, false },
        { "blocks of 256 bytes", 40, 256, 4, false }, { "of 512 bytes", 40, 512, 4, true },
        { "of 3000 bytes", 40, 3000, 4, false }, { "of 1 MiB", 40, 1_MiB, 4, true },
        { "of 2 MiB", 40, 2_MiB, 4, false }, { "no blocks", 44, 0, 4, false } };
    for (const auto& [what, at, value, width, isHeader] : rows) {
        HFSPlusImage image;
        putBE(image.bytes(), 1024 + at, value, width);
        const ByteView bytes(image.bytes());
        EXPECT_EQ(HFSPlusParser::isVolumeHeader(bytes.sub(1024, 48)), isHeader) << what;
        EXPECT_EQ(HFSPlusParser::probe(bytes.sub(0, 4096)).has_value(), isHeader) << what;
        EXPECT_FALSE(HFSPlusParser::isVolumeHeader(bytes.sub(1024, 47))) << what;
    }
}

TEST(HFSPlus, TheAlternateHeaderLeavesTheVolumeABlockToBeLongerThanItsBlocks)
{
    HFSPlusImage image;
    auto& bytes = image.bytes();
    putBE(bytes, 1024 + 40, 2048, 4);
    putBE(bytes, 1024 + 44, 100, 4);
    const auto startsAt = [&](std::uint64_t offset) -> std::string {
        const auto header = HFSPlusVolumeHeader::decode(ByteView(bytes).sub(1024, 512));
        const auto starts = HFSPlusVolumeHeader::startsByAlternate(*header, offset);
        return starts ? std::to_string(starts->lowest) + "-" + std::to_string(starts->highest) : "";
    };
    constexpr std::uint64_t size = 204'800;
    EXPECT_EQ(startsAt(8192 + size - 1024), "6656-8192");
    EXPECT_EQ(startsAt(512 + size - 1024), "0-512") << "none before the source";
    EXPECT_EQ(startsAt(size - 1025), "");
    EXPECT_EQ(startsAt(~std::uint64_t { 0 }), "");
    putBE(bytes, 1024, 0, 1);
    EXPECT_FALSE(HFSPlusVolumeHeader::decode(ByteView(bytes).sub(1024, 512))) << "no header";
}

TEST(HFSPlus, JudgesFilesByTheirExtentsAndTheAllocationFile)
{
    HFSPlusImage image;
    image.setLeaf(2,
        { rootRecord,
            { .parent = 2, .name = u"afkortet", .id = 40, .size = 2000, .runs = { { 100, 1 } } },
            { .parent = 2,
                .name = u"udenfor",
                .id = 41,
                .size = 600,
                .runs = { { 399, 1 }, { 400, 1 } } } });
    image.chain({ 2 });
    image.setLeaf(3,
        { { .parent = 2, .name = u"hel", .id = 50, .size = 1024, .runs = { { 110, 2 } } },
            { .parent = 2, .name = u"delvis", .id = 51, .size = 1024, .runs = { { 112, 2 } } },
            { .parent = 2, .name = u"genbrugt", .id = 52, .size = 1024, .runs = { { 114, 2 } } } });
    image.setLeaf(4,
        { { .parent = 2, .name = u"i stykker", .id = 53, .size = 9000, .runs = { { 116, 2 } } },
            { .parent = 2, .name = u"komprimeret", .id = 54, .size = 9000, .ownerFlags = 0x20 },
            { .parent = 2, .name = u"ressource", .id = 55, .resourceSize = 99 } });
    image.addOverflow(53, 2, { { 200, 90 } }); // by now it describes another file
    image.setAllocated(113);
    image.setAllocated(114);
    const std::pair<const char*, const char*> expected[] = {
        { "/afkortet", "Delvis" },
        { "/udenfor", "Delvis" },
        { "/hel", "God" },
        { "/delvis", "Delvis: Dele af filen kan være overskrevet" },
        { "/genbrugt", "Ringe: Blokkene er genbrugt af andre filer" },
        { "/i stykker", "Delvis: Filen var fragmenteret – kun de første dele kendes" },
        { "/komprimeret",
            "Ringe: HFS-komprimeret fil – indholdet ligger i en skjult ressource og kan ikke "
            "gendannes direkte" },
        { "/ressource", "God: Filen har kun en ressourcegren på 99 bytes" },
    };
    const auto disk = parse(image);
    for (const auto& [path, text] : expected)
        EXPECT_EQ(chance(disk[path]), text) << path;
    EXPECT_EQ(disk["/i stykker"].data,
        FileData(
            ExtentList { { HFSPlusImage::offsetOf(116), 1024 }, { std::nullopt, 9000 - 1024 } }));

    const auto bitmap = HFSPlusImage::offsetOf(HFSPlusImage::allocationBlock);
    const auto without = parse(image, { bitmap, bitmap + 1 });
    EXPECT_EQ(
        without.volume->notes, std::vector<std::string> { "Allokeringsfilen kunne ikke læses." });
    EXPECT_EQ(chance(without["/genbrugt"]), "Ukendt");
}

TEST(HFSPlus, NotesThatAnotherDeletedFileHadTheSameBlocks)
{
    const char* const contested
        = "God: En anden slettet fil har haft noget af den samme plads, og det vides ikke, hvis "
          "indhold der ligger";
    const struct {
        const char* what;
        std::uint32_t date, start; // of the other file, which has two blocks
        const char *one, *other;
    } rows[] = {
        { "later", 9, 110, "God: Begyndelsen er genbrugt af en anden slettet fil", "God" },
        { "later, the second block", 9, 111,
            "God: Dele af filen kan være overskrevet af en anden slettet fil", "God" },
        { "before", 7, 110, "God", "God: Begyndelsen er genbrugt af en anden slettet fil" },
        { "at the same time", 8, 111, contested, contested },
        { "later, elsewhere", 9, 112, "God", "God" },
    };
    for (const auto& [what, date, start, one, other] : rows) {
        HFSPlusImage image;
        image.setLeaf(2, { rootRecord });
        image.setLeaf(3,
            { { .parent = 2,
                  .name = u"en",
                  .id = 50,
                  .modified = 8,
                  .size = 1024,
                  .runs = { { 110, 2 } } },
                { .parent = 2,
                    .name = u"anden",
                    .id = 51,
                    .modified = date,
                    .size = 1024,
                    .runs = { { start, 2 } } } });
        image.chain({ 2 });
        const auto disk = parse(image);
        EXPECT_EQ(chance(disk["/en"]), one) << what;
        EXPECT_EQ(chance(disk["/anden"]), other) << what;
    }
}

TEST(HFSPlus, TellsOfMetadataThatCannotBeRead)
{
    // A block of the allocation file speaks of 4096 blocks.
    HFSPlusImage image(false, 8000);
    const std::uint64_t bitmap = HFSPlusImage::offsetOf(HFSPlusImage::allocationBlock);
    image.setLeaf(2, { rootRecord, { .parent = 2, .name = u"lever", .id = 19 } });
    image.setLeaf(3, { { .parent = 2, .name = u"næste", .id = 20 } });
    image.chain({ 2, 3 });
    image.setLeaf(4,
        { { .parent = 2, .name = u"hel", .id = 50, .size = 1024, .runs = { { 110, 2 } } },
            { .parent = 2, .name = u"senere", .id = 51, .size = 1024, .runs = { { 5000, 2 } } } });
    image.setLeaf(5,
        { { .parent = 2, .name = u"på tværs", .id = 52, .size = 1024, .runs = { { 4095, 2 } } },
            { .parent = 2, .name = u"genbrugt", .id = 53, .size = 1024, .runs = { { 95, 2 } } } });
    const struct {
        const char* what;
        ByteRange unreadable;
        std::vector<std::string> notes;
    } rows[] = {
        { "nothing", {}, {} },
        { "the second part of the allocation file", { bitmap + 512, bitmap + 513 },
            { "Dele af allokeringsfilen kunne ikke læses (488 bytes). Om slettede filers blokke er "
              "genbrugt, vides kun for nogle af dem." } },
        { "a node of the catalog", { HFSPlusImage::nodeOffset(3), HFSPlusImage::nodeOffset(4) },
            { "Dele af kataloget kunne ikke læses (1024 bytes). Filer kan mangle.",
                "Katalogets kæde af blade er afbrudt. Hvilke filer der eksisterer, er afgjort af "
                "dets indeks." } },
        { "the extents file", { HFSPlusImage::offsetOf(8), HFSPlusImage::offsetOf(8) + 1 },
            { "Dele af extents-filen kunne ikke læses (512 bytes). De sidste dele af fragmenterede "
              "filer kan mangle." } },
    };
    for (const auto& [what, unreadable, notes] : rows)
        EXPECT_EQ(parse(image, unreadable).volume->notes, notes) << what;

    const auto disk = parse(image, rows[1].unreadable);
    const std::string lost = "Ukendt: Det vides ikke, om pladsen er genbrugt";
    EXPECT_EQ(chance(disk["/hel"]), "God");
    EXPECT_EQ(chance(disk["/senere"]), lost);
    EXPECT_EQ(chance(disk["/på tværs"]), lost);
    EXPECT_EQ(chance(disk["/genbrugt"]), "Ringe: Blokkene er genbrugt af andre filer");
}

TEST(HFSPlus, TheAllocationFileSaysWhatIsInUse)
{
    constexpr std::uint64_t base = 4096;
    HFSPlusImage image(false, 8000); // two blocks of bits
    image.setLeaf(2, { rootRecord });
    image.chain({ 2 });
    image.setAllocated(150);
    image.setAllocated(151);
    image.setAllocated(399);
    auto& bytes = image.bytes();
    bytes.insert(bytes.begin(), base, 0);
    const auto block = [](std::uint32_t number) { return base + HFSPlusImage::offsetOf(number); };
    using Ranges = std::vector<ByteRange>;
    const Ranges start { { block(0), block(96) } };
    const struct {
        const char* what;
        std::uint64_t sourceEnd;
        ByteRange unreadable;
        std::optional<Ranges> used; // none: it cannot be said
    } rows[] = {
        { "all", block(8000), {},
            Ranges { start[0], { block(150), block(152) }, { block(399), block(400) } } },
        { "a cut source", block(151), {}, Ranges { start[0], { block(150), block(151) } } },
        { "an unreadable part of the allocation file", block(8000), { block(4), block(4) + 1 },
            {} },
    };
    for (const auto& [what, sourceEnd, unreadable, used] : rows) {
        auto cut = image;
        cut.bytes().resize(sourceEnd);
        const auto source = cut.source();
        source->addSimulatedBadRange(unreadable);
        const auto volume = HFSPlusParser::parse(*source, base, "prøve", nullptr);
        ASSERT_TRUE(volume) << what;
        Ranges found;
        EXPECT_EQ(HFSPlusParser::addUsedRanges(*source, *volume, found), used.has_value()) << what;
        EXPECT_EQ(found, used.value_or(Ranges {})) << what;
    }
}

TEST(HFSPlus, FollowsHardLinksAndHidesPrivateFolders)
{
    HFSPlusImage image(true);
    image.write(HFSPlusImage::offsetOf(150), bytesOf("indhold"));
    image.setLeaf(2,
        { rootRecord,
            { .parent = 2,
                .name = std::u16string(u"\0\0\0\0HFS+ Private Data", 21),
                .id = 16,
                .isFolder = true },
            { .parent = 16, .name = u"iNode7", .id = 60, .size = 7, .runs = { { 150, 1 } } },
            { .parent = 2, .name = u"link", .id = 61, .linkTo = 7 } });
    image.setLeaf(4, // what the tree has given up
        { { .parent = 16, .name = u"iNode7", .id = 59, .size = 9, .runs = { { 160, 1 } } },
            { .parent = 2, .name = u"slettet link", .id = 63, .linkTo = 7 } });
    image.setAllocated(150);
    image.setLeaf(3, { { .parent = 2, .name = u"dødt link", .id = 62, .linkTo = 8 } });
    image.chain({ 2, 3 });
    const auto disk = parse(image);
    EXPECT_EQ(disk.volume->notes, std::vector<std::string> { "HFSX (versalfølsom)" });
    for (const auto* path : { "/link", "/slettet link" }) {
        EXPECT_EQ(disk.content(path), bytesOf("indhold")) << path;
        EXPECT_EQ(chance(disk[path]), "God") << "by the file that still exists: " << path;
    }
    EXPECT_EQ(disk["/slettet link"].status, EntryStatus::deleted);
    EXPECT_EQ(chance(disk["/dødt link"]), "Ringe: Filen, som linket peger på, blev ikke fundet");
    const std::string orphans = " /$Forældreløse filer";
    EXPECT_EQ(disk.names(),
        orphans + orphans + "/iNode7" + orphans + "/iNode7 /dødt link /link /slettet link");
}

TEST(HFSPlus, HangsWhatTheRootDoesNotReachSideBySide)
{
    HFSPlusImage image;
    image.setLeaf(2,
        { rootRecord, { .parent = 99, .name = u"uden forælder", .id = 63, .isFolder = true },
            { .parent = 63, .name = u"dens barn", .id = 64 },
            { .parent = 71, .name = u"ring", .id = 70, .isFolder = true },
            { .parent = 70, .name = u"", .id = 71, .isFolder = true } });
    image.setLeaf(3,
        { { .parent = 70, .name = u"på ringen", .id = 72, .isFolder = true },
            { .parent = 73, .name = u"selv", .id = 73, .isFolder = true },
            { .parent = 2, .name = u"fil", .id = 61 },
            { .parent = 61, .name = u"under en fil", .id = 74 } });
    image.chain({ 2, 3 });
    const auto disk = parse(image);
    std::string orphans;
    for (const auto& node : disk["/$Forældreløse filer"].children())
        orphans += node->name + "; ";
    EXPECT_EQ(
        orphans, "på ringen; ring; selv; uden forælder; unavngivet-71; dens barn; under en fil; ");
    EXPECT_EQ(disk.volume->root->totals().files, 3u);
}

TEST(HFSPlus, FollowsChainsThatLoopOrAreCutByUnreadableSectors)
{
    HFSPlusImage image;
    image.setLeaf(2, { rootRecord });
    image.setLeaf(3, { { .parent = 2, .name = u"midt", .id = 80 } });
    image.setLeaf(4, { { .parent = 2, .name = u"sidst", .id = 81 } });
    image.setLeaf(5, { { .parent = 2, .name = u"opgivet", .id = 82 } });
    image.chain({ 2, 3, 4 });
    const auto cut = parse(image, { HFSPlusImage::nodeOffset(3), HFSPlusImage::nodeOffset(4) });
    EXPECT_EQ(cut["/sidst"].status, EntryStatus::existing) << "the index names its leaf";
    EXPECT_EQ(cut["/opgivet"].status, EntryStatus::deleted);

    image.bytes()[HFSPlusImage::nodeOffset(3) + 3] = 2; // the chain comes back to its start
    const auto loop = parse(image);
    EXPECT_EQ(loop["/midt"].status, EntryStatus::existing);
    EXPECT_EQ(loop["/sidst"].status, EntryStatus::deleted);
}

TEST(HFSPlus, KeepsWhatDamagedHeadersTreesAndRecordsLeave)
{
    HFSPlusImage sound;
    sound.setLeaf(2,
        { rootRecord, { .parent = 2, .name = u"første", .id = 90 },
            { .parent = 2, .name = u"anden", .id = 91 } });
    sound.chain({ 2 });
    const auto leaf = HFSPlusImage::nodeOffset(2);
    const struct {
        const char* what;
        std::uint64_t at;
        Bytes value;
        const char* names; ///< empty: no volume
    } cases[] = {
        { "catalog of 2^63 bytes", 1024 + 272, { 0x80 }, " /anden /første" },
        { "catalog beyond the source", 1024 + 272 + 16, { 0xFF }, "" },
        { "node size", HFSPlusImage::nodeOffset(0) + 32, { 3, 0 }, "" },
        { "offset of the second record, where the first one ends", leaf + 1024 - 4, { 0, 5 }, "" },
        { "key of the first record", leaf + 14, { 0, 3 }, " /anden /første" },
        { "name length of the second record", leaf + 14 + 104 + 6, { 1, 0 }, " /anden" },
    };
    for (const auto& [what, at, value, names] : cases) {
        auto image = sound;
        image.write(at, value);
        const auto disk = parse(image);
        EXPECT_EQ(disk.volume ? disk.names() : "", names) << what;
    }
}

TEST(HFSPlus, OtherReadersSeeWhatWeBuild)
{
    if (!hasProgram("fls"))
        GTEST_SKIP() << "needs sleuthkit";
    const std::vector<Record> records { rootRecord,
        { .parent = 2, .name = u"Mappe", .id = 18, .isFolder = true },
        { .parent = 18, .name = u"fil.txt", .id = 20, .size = 700, .runs = { { 200, 2 } } } };
    HFSPlusImage image;
    const auto content = patternBytes(700);
    image.write(HFSPlusImage::offsetOf(200), content);
    image.setLeaf(2, records, records);
    image.chain({ 2 });
    const TemporaryFolder folder;
    const auto path = folder / "disk.img";
    writeFile(path, image.bytes());
    std::string listing;
    EXPECT_EQ(runCommand("fls -f hfs -r -p " + path, &listing), 0);
    EXPECT_NE(listing.find("/r 20:\tMappe/fil.txt"), std::string::npos) << listing;
    EXPECT_EQ(runCommand("icat -f hfs " + path + " 20 > " + (folder / "fil")), 0);
    EXPECT_EQ(readFile(folder / "fil"), content);
    EXPECT_EQ(parse(image).content("/Mappe/fil.txt"), content);
}
