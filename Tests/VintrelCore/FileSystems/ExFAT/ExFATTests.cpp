#include "Tests/Images/ExFATImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/FileSystems/ExFAT/BootSector.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Reader.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

namespace {

using Notes = std::vector<std::string>;

Parsed parse(const ExFATImage& image, ByteRange unreadable = {})
{
    auto source = image.source();
    source->addSimulatedBadRange(unreadable);
    auto volume = ExFATParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

} // namespace

TEST(ExFAT, ListsAndReadsTheLiveTree)
{
    const ExFATImage::Options kinds[] = {
        {}, { .clusterShift = 3 }, { .sectorShift = 12 }, { .usesSecondFAT = true },
        { .clusters = 5, .clusterShift = 16 }, // clusters of 32 MiB
    };
    for (const auto& options : kinds) {
        SCOPED_TRACE(
            std::to_string(options.sectorShift) + ", " + std::to_string(options.clusterShift));
        ExFATImage image(options);
        const auto content = patternBytes(3000);
        const auto cluster = image.clusterSize();
        const auto folder = image.addFolder(image.root(), { .name = u"DCIM" });
        image.addFile(
            folder, { .name = u"Et navn på mere end fjorten enheder \U0001F600.jpg" }, content);
        const auto chained
            = image.addFile(folder, { .name = u"i stykker.bin", .isContiguous = false }, content);
        if (cluster < 1500) { // the second cluster moves to the end of the heap
            image.setFAT(chained, options.clusters);
            image.setFAT(options.clusters, chained + 2);
            image.write(
                image.offsetOf(options.clusters), std::span(content).subspan(cluster, cluster));
            image.write(image.offsetOf(chained + 1), Bytes(cluster));
        }

        const auto card = parse(image);
        ASSERT_TRUE(card.volume);
        EXPECT_EQ(card.volume->title(), "KORT (exFAT)");
        EXPECT_EQ(card.volume->size, image.bytes().size());
        EXPECT_TRUE(card.volume->notes.empty());
        const std::string longName = "/DCIM/Et navn på mere end fjorten enheder \U0001F600.jpg";
        EXPECT_EQ(card.content(longName), content);
        EXPECT_EQ(card.content("/DCIM/i stykker.bin"), content);
        EXPECT_EQ(chance(card["/DCIM/i stykker.bin"]), "God");
        using namespace std::chrono;
        EXPECT_EQ(card[longName].modified, sys_days { 2025y / 10 / 3 } + 12h);
    }
}

TEST(ExFAT, TakesLabelsOfUpToFifteenUnits)
{
    const std::string letters = "ABCDEFGHIJKLMNO";
    for (const std::size_t length : { 11u, 15u, 200u }) {
        ExFATImage image;
        const auto entry = image.entryOffset(image.root(), 0);
        image.bytes()[entry + 1] = static_cast<std::uint8_t>(length);
        for (std::size_t i = 0; i < letters.size(); ++i)
            image.bytes()[entry + 2 + 2 * i] = static_cast<std::uint8_t>(letters[i]);
        EXPECT_EQ(
            ExFATParser::parse(*image.source(), 0, "", nullptr)->label, letters.substr(0, length));
    }
}

TEST(ExFAT, JudgesFilesByWhatBecameOfTheirClusters)
{
    ExFATImage image;
    const auto content = patternBytes(1400); // three clusters
    const auto place = [&](const char16_t* name, bool isContiguous) {
        return image.addFile(image.root(), { .name = name, .isContiguous = isContiguous }, content);
    };
    place(u"hel", true);
    const auto partly = place(u"delvis", true);
    const auto reused = place(u"genbrugt", true);
    place(u"kæde", false);
    const auto broken = place(u"kæde væk", false);
    for (const auto* name : { u"hel", u"delvis", u"genbrugt", u"kæde", u"kæde væk" })
        image.remove(name);
    image.setUsed(partly + 2, true);
    image.setUsed(reused, true);
    image.setFAT(broken, 0);
    const auto cut = place(u"kort", false);
    image.setFAT(cut + 1, 0xFFFFFFF7);
    image.addSet(image.root(), { .name = u"udenfor", .cluster = 202, .size = 5 });
    image.addSet(
        image.root(), { .name = u"exabytes", .cluster = 50, .size = std::uint64_t { 1 } << 62 });
    image.addSet(image.root(), { .name = u"over kanten", .cluster = 200, .size = 2000 });
    image.addSet(image.root(), { .name = u"kant og væk", .cluster = 200, .size = 2000 });
    image.remove(u"kant og væk");
    auto beginning = content; // what lies beyond the valid size are zeros
    std::fill(beginning.begin() + 700, beginning.end(), std::uint8_t { 0 });
    image.addSet(
        image.root(), { .name = u"begyndt", .cluster = reused, .size = 1400, .validSize = 700 });
    image.addSet(
        image.root(), { .name = u"ikke begyndt", .cluster = reused, .size = 1400, .validSize = 0 });

    const std::pair<const char*, const char*> expected[] = {
        { "/hel", "God" },
        { "/delvis", "Delvis: Dele af filen kan være overskrevet" },
        { "/genbrugt", "Ringe: Startklyngen er genbrugt af en anden fil" },
        { "/kæde", "God" },
        { "/kæde væk", "Delvis: Klyngekæden er afbrudt" },
        { "/kort", "Delvis: Klyngekæden er afbrudt" },
        { "/udenfor", "Ringe: Ugyldig startklynge" },
        { "/exabytes", "Ringe: Filens størrelse er større end diskens" },
        { "/over kanten", "Delvis: Klyngekæden er afbrudt" },
        { "/kant og væk",
            "Ringe: Dele af filen kan være overskrevet; Startklyngen er genbrugt af en anden fil" },
        { "/begyndt", "God" },
    };
    const auto card = parse(image);
    for (const auto& [path, text] : expected)
        EXPECT_EQ(chance(card[path]), text) << path;
    EXPECT_EQ(card.content("/kæde"), content);
    EXPECT_EQ(card.content("/kæde væk"), content);
    EXPECT_EQ(card.content("/begyndt"), beginning);
    EXPECT_EQ(card.content("/ikke begyndt"), Bytes(1400));
    EXPECT_EQ(card["/exabytes"].data, FileData(NoData {}));
    EXPECT_EQ(card["/over kanten"].data, FileData(ExtentList { { image.offsetOf(200), 1024 } }));
}

TEST(ExFAT, WithoutBitmapOrFATLessIsKnown)
{
    ExFATImage image;
    const auto content = patternBytes(1400);
    const auto reused = image.addFile(image.root(), { .name = u"genbrugt" }, content);
    for (const char16_t* name : { u"kæde", u"kort" })
        image.addFile(image.root(), { .name = name, .isContiguous = false }, content);
    for (const char16_t* name : { u"genbrugt", u"kæde" })
        image.remove(name);
    image.setUsed(reused, true);

    const auto withoutBitmap = parse(image, { image.bitmapOffset(), image.bitmapOffset() + 1 });
    EXPECT_EQ(withoutBitmap.volume->notes, Notes { "Allokeringsbitmappen kunne ikke læses." });
    EXPECT_EQ(chance(withoutBitmap["/genbrugt"]), "Ukendt: Det vides ikke, om pladsen er genbrugt");
    const auto withoutFAT = parse(image, { image.fatOffset(), image.bitmapOffset() });
    EXPECT_EQ(withoutFAT.volume->notes,
        Notes { "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende." });
    for (const auto* path : { "/kort", "/kæde" })
        EXPECT_EQ(chance(withoutFAT[path]),
            "Ukendt: Filens klynger kendes ikke; de antages at ligge samlet");
    EXPECT_EQ(parse(ExFATImage({ .hasBitmap = false })).volume->notes, withoutBitmap.volume->notes);
}

TEST(ExFAT, ListsDamagedSetsAsFarAsTheyCanBeTrusted)
{
    const std::u16string name = u"Et navn af tre stykker, det er langt.txt";
    const std::string whole = "/Et navn af tre stykker, det er langt.txt";
    const std::string damaged = " [Delvis: Mappeposten er beskadiget]";
    const struct {
        const char* what;
        std::size_t entry, byte; ///< entry 0 is the file's, 1 the stream's, 2 … 4 the name's
        std::uint8_t value;
        bool isDeleted;
        std::string expected; ///< names with notes; empty: the set is skipped
    } cases[] = {
        { "sound and deleted", 4, 0, 0x41, true, whole + " [God]" },
        { "checksum", 0, 2, 0x00, false, whole + damaged },
        { "count too large", 0, 1, 200, false, whole + damaged },
        { "file entry overwritten", 0, 0, 0xFF, true, whole + damaged },
        { "end of the name overwritten", 4, 0, 0x85, true,
            "/Et navn af tre stykker, det er" + damaged },
        { "stream overwritten", 1, 0, 0x22, true, "" },
        { "forbidden character", 2, 2, '/', false, "" },
        { "valid size above the size", 1, 15, 0x10, false, "" },
    };
    for (const auto& [what, entry, byte, value, isDeleted, expected] : cases) {
        ExFATImage image;
        image.addFile(image.root(), { .name = name }, bytesOf("x"));
        image.addFile(image.root(), { .name = u"efter.txt" }, bytesOf("y"));
        if (isDeleted)
            image.remove(name);
        image.bytes()[image.entryOffset(image.root(), 2 + entry) + byte] = value;
        std::string found;
        const auto card = parse(image);
        EXPECT_EQ(chance(card["/efter.txt"]), "God") << what;
        for (const auto* node : card.volume->root->files())
            if (node->name != "efter.txt")
                found += node->path() + " [" + chance(*node) + "]";
        EXPECT_EQ(found, expected) << what;
    }
}

TEST(ExFAT, FoldersAreKnownByTheirContentWhereTheirFirstEntryIsLost)
{
    ExFATImage image;
    const auto folder = image.addFolder(image.root(), { .name = u"Mappe" });
    image.addFile(folder, { .name = u"fil.txt" }, bytesOf("x"));
    image.bytes()[image.entryOffset(image.root(), 2)] = 0xFF;
    EXPECT_EQ(chance(parse(image)["/Mappe/fil.txt"]), "God");
}

TEST(ExFAT, DeletedFoldersAreWalkedWhileTheirClustersHold)
{
    ExFATImage image({ .clusters = 400 });
    const auto folder = image.addFolder(image.root(), { .name = u"Ferie" }, 4);
    for (char16_t letter = u'a'; letter < u'p';
         ++letter) // three entries each: sets lie across clusters
        image.addFile(folder, { .name = { letter } }, patternBytes(600));
    const auto inner = image.addFolder(folder, { .name = u"Indre", .isContiguous = false }, 2);
    image.addFile(inner, { .name = u"dyb.txt" }, bytesOf("dyb"));
    image.addFolder(image.root(), { .name = u"Tom" });
    const auto overwritten = image.addFolder(image.root(), { .name = u"Væk" });
    image.write(image.offsetOf(overwritten), Bytes(512, 'x'));
    const auto reused = image.addFolder(image.root(), { .name = u"Brugt" });
    image.addFile(reused, { .name = u"x" }, bytesOf("x"));
    for (const auto* name : { u"Ferie", u"Indre", u"Tom", u"Væk", u"Brugt" })
        image.remove(name);
    image.setUsed(reused, true);

    const auto card = parse(image);
    EXPECT_EQ(card["/Ferie"].children().size(), 16u);
    EXPECT_EQ(card.content("/Ferie/Indre/dyb.txt"), bytesOf("dyb"));
    EXPECT_FALSE(card["/Tom"].note);
    EXPECT_EQ(*card["/Væk"].note, "Mappens indhold er overskrevet");
    EXPECT_TRUE(card["/Brugt"].children().empty());

    image.setUsed(folder + 2, true); // somebody has taken the third cluster
    image.write(image.offsetOf(folder + 2), Bytes(512, 'y'));
    EXPECT_EQ(parse(image)["/Ferie"].children().size(), 10u);
}

TEST(ExFAT, DirectoriesThatShareClustersDoNotMultiplyTheVolume)
{
    ExFATImage image({ .clusters = 600 });
    const auto shared = image.addFolder(image.root(), { .name = u"Mange" }, 300);
    for (std::uint32_t i = 0; i < 300 * 16 / 3 - 1; ++i)
        image.addSet(shared,
            { .name = u"m", .attributes = 0x10, .cluster = shared + i % 300, .size = 300 * 512 });
    const auto totals = parse(image).volume->root->totals();
    EXPECT_GE(totals.folders, 1500u);
    EXPECT_LE(totals.folders, image.bytes().size() / 96);
}

TEST(ExFAT, ReadsAVolumeByABootSectorFromElsewhere)
{
    ExFATImage image;
    const Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    image.write(0, Bytes(512));
    auto source = image.source();
    EXPECT_FALSE(ExFATParser::parse(*source, 0, "", nullptr));
    EXPECT_TRUE(ExFATParser::parse(*source, 0, "", nullptr, ByteView(boot)));
}

TEST(ExFAT, RefusesImpossibleSizesAndPlaces)
{
    const ExFATImage image;
    const Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    const auto source = image.source();
    for (const std::uint64_t field :
        { 72u, 88u }) { // the size of the volume, the place of its heap
        auto damaged = boot;
        putLE(damaged, field, 0x7FFF'FFFF'FFFF'FFFF, field == 72 ? 8 : 4);
        EXPECT_FALSE(ExFATParser::parse(*source, 0, "", nullptr, ByteView(damaged))) << field;
    }
}

TEST(ExFAT, BackupsSayWhereTheirVolumeBegins)
{
    const struct {
        int sectorShift;
        std::uint64_t offset;
        std::optional<std::uint64_t> start;
    } rows[] = {
        { 9, 12 * 512, 0 }, { 9, 12 * 512 - 1, std::nullopt }, { 12, 20 * 4096, 8 * 4096 },
        { 13, 1 << 20, std::nullopt }, // no boot sector
    };
    for (const auto& [sectorShift, offset, start] : rows) {
        auto boot = ExFATImage().bytes();
        putLE(boot, 108, static_cast<unsigned>(sectorShift), 1);
        EXPECT_EQ(ExFATParser::startByBackup(boot, offset), start) << sectorShift;
        EXPECT_EQ(ExFATParser::probe(boot).has_value(), sectorShift != 13);
    }
}

TEST(ExFAT, FilesOfLostFragmentsLeaveLiveFilesTheirClusters)
{
    ExFATImage image;
    const auto content = patternBytes(1400); // three clusters
    const auto live = image.addFile(image.root(), { .name = u"levende" }, content);
    const auto lost = image.addFolder(image.root(), { .name = u"Tabt" });
    image.addSet(lost, { .name = u"taget", .cluster = live, .size = 1400 });
    image.addSet(lost, { .name = u"delvis", .cluster = live - 1, .size = 1400 });
    image.addFile(lost, { .name = u"egen" }, content);
    image.write(image.entryOffset(image.root(), 5), Bytes(96)); // the folder's set vanishes

    const auto card = parse(image);
    ASSERT_EQ(card.names(), " /levende");
    const std::uint64_t sectors[] = { image.offsetOf(lost) };
    const auto folder = ExFATParser::lostEntries(*card.volume, sectors, nullptr);
    ASSERT_TRUE(folder);
    std::string found;
    for (const auto& node : folder->children())
        found += node->name + " " + chance(*node) + "; ";
    EXPECT_EQ(found,
        "delvis Ringe: Startklyngen er genbrugt af en anden fil; egen God; "
        "taget Ringe: Startklyngen er genbrugt af en anden fil; ");
}

TEST(ExFAT, FilesThatOverlapWithoutEndClaimNoMoreThanAVolumeHas)
{
    constexpr std::uint32_t lastCluster = 150;
    for (const int overlapping : { 0, 40 }) {
        ExFATImage image;
        for (int i = 0; i < overlapping; ++i) // a hundred clusters each
            image.addSet(image.root(), { .name = u"igen", .cluster = 20, .size = 100 * 512 });
        image.addSet(image.root(), { .name = u"sidst", .cluster = lastCluster, .size = 512 });
        VolumeList volumes;
        auto card = parse(image);
        volumes.push_back(std::move(card.volume));
        // Where nothing has claimed the last file's cluster, a directory may lie in it.
        const std::uint64_t sectors[] = { image.offsetOf(lastCluster) };
        EXPECT_EQ(ExFATParser::looseSectors(sectors, volumes).empty(), overlapping == 0);
    }
}

TEST(ExFAT, WhatExistsIsInUseWhateverTheBitmapSays)
{
    ExFATImage image;
    const auto inFolder = image.addFolder(image.root(), { .name = u"Mappe" });
    image.addSet(image.root(), { .name = u"på mappen", .cluster = inFolder, .size = 512 });
    image.remove(u"på mappen"); // before the file that exists is read
    image.addSet(image.root(), { .name = u"slettet", .cluster = inFolder + 1, .size = 512 });
    image.remove(u"slettet");
    const auto live = image.addFile(image.root(), { .name = u"levende" }, patternBytes(1400));
    ASSERT_EQ(live, inFolder + 1);
    for (const auto cluster : { inFolder, live, live + 1, live + 2 })
        image.setUsed(cluster, false); // as a lost sector of the bitmap does
    const auto card = parse(image);
    for (const auto* path : { "/på mappen", "/slettet" })
        EXPECT_EQ(chance(card[path]), "Ringe: Startklyngen er genbrugt af en anden fil") << path;
    EXPECT_EQ(chance(card["/levende"]), "God");
}

TEST(ExFAT, OfTwoDeletedFilesTheOneThatWasWrittenLastHasTheClusters)
{
    const std::string reused = "Ringe: Begyndelsen er genbrugt af en anden slettet fil";
    const std::string partly = "Delvis: Dele af filen kan være overskrevet af en anden slettet fil";
    constexpr std::uint32_t noon = 0x5B436000;
    constexpr std::uint32_t evening = 0x5B43A000;
    struct File {
        std::uint32_t cluster;
        std::uint64_t size;
        std::uint32_t created, modified;
        std::uint32_t ticks; ///< of the modification, 10 ms each
        std::string expected;
    };
    const struct {
        const char* what;
        File a, b;
    } cases[] = {
        { "side by side", { 50, 1024, noon, noon, 0, "God" }, { 52, 1024, noon, noon, 0, "God" } },
        { "the same place", { 50, 1024, noon, noon, 0, reused },
            { 50, 1024, noon, evening, 0, "God" } },
        { "later by less than two seconds", { 50, 1024, noon, noon, 7, "God" },
            { 50, 1024, noon, noon, 6, reused } },
        { "a copy with its old date", { 50, 1024, evening, noon, 0, "God" },
            { 50, 1024, noon, noon, 0, reused } },
        { "over the end of another", { 50, 2048, noon, noon, 0, partly },
            { 53, 2048, noon, evening, 0, "God" } },
        { "inside of another", { 50, 4096, noon, noon, 0, partly },
            { 53, 512, noon, evening, 0, "God" } },
        { "over all of another", { 50, 4096, noon, evening, 0, "God" },
            { 53, 512, noon, noon, 0, reused } },
        { "at the same time", { 50, 1024, noon, noon, 0, partly },
            { 51, 1024, noon, noon, 0, partly } },
        { "without a date", { 50, 1024, 0, 0, 0, partly }, { 51, 1024, noon, noon, 0, partly } },
        { "one file by two names", { 50, 1024, noon, noon, 0, "God" },
            { 50, 1024, noon, noon, 0, "God" } },
    };
    for (const auto& [what, a, b] : cases) {
        ExFATImage image;
        std::size_t number = 2; // of the next entry of the root
        const auto add = [&](const char16_t* name, const File& file) {
            image.addSet(
                image.root(), { .name = name, .cluster = file.cluster, .size = file.size });
            const auto entry = image.entryOffset(image.root(), number);
            putLE(image.bytes(), entry + 8, file.created, 4);
            putLE(image.bytes(), entry + 12, file.modified, 4);
            putLE(image.bytes(), entry + 21, file.ticks, 1);
            putLE(image.bytes(), entry + 22, 0x80, 1); // UTC
            image.remove(name);
            number += 3;
        };
        add(u"a", a);
        add(u"b", b);
        image.renewChecksums();
        const auto card = parse(image);
        EXPECT_EQ(chance(card["/a"]), a.expected) << what;
        EXPECT_EQ(chance(card["/b"]), b.expected) << what;
    }
}

TEST(ExFAT, TellsWhatItHasInUse)
{
    ExFATImage image({ .clusters = 100 });
    const auto file = image.addFile(image.root(), { .name = u"a" }, Bytes(1024));
    image.setUsed(70, true);
    image.setUsed(101, true);
    image.setUsed(103, true); // the bitmap's last byte goes on behind the last cluster
    const auto card = parse(image);
    std::vector<ByteRange> ranges;
    ASSERT_TRUE(exfatReader.addUsedRanges(*card.source, *card.volume, ranges));
    const std::vector<ByteRange> expected { { 0, image.offsetOf(2) },
        { image.offsetOf(2), image.offsetOf(file + 2) }, { image.offsetOf(70), image.offsetOf(71) },
        { image.offsetOf(101), image.offsetOf(102) } };
    EXPECT_EQ(ranges, expected);
    const auto damaged = parse(image, { image.bitmapOffset(), image.bitmapOffset() + 1 });
    EXPECT_FALSE(exfatReader.addUsedRanges(*damaged.source, *damaged.volume, ranges));
    EXPECT_EQ(ranges, expected);
}

TEST(ExFAT, SaysWhatOfItsStructuresIsUnreadable)
{
    ExFATImage image({ .clusters = 300 });
    const auto folder = image.addFolder(image.root(), { .name = u"Mappe" }, 2);
    image.addFile(folder, { .name = u"a" }, bytesOf("a"));
    const auto place = image.offsetOf(folder);
    EXPECT_EQ(parse(image, { place, place + 512 }).volume->notes,
        Notes { "Mapperne har 1 ulæselig sektor – filer kan mangle." });
    EXPECT_EQ(parse(image, { image.fatOffset() + 512, image.fatOffset() + 1536 }).volume->notes,
        Notes { "FAT-tabellen har 2 ulæselige sektorer – klyngekæder kan mangle, og pladsen kan "
                "være genbrugt." });
}

TEST(ExFAT, OtherToolsFindNoFaultInOurSets)
{
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    if (!hasProgram("mkfs.exfat"))
        GTEST_SKIP() << "needs exfatprogs";
    const TemporaryFolder folder;
    const auto path = folder / "kort.img";
    writeFile(path, Bytes(4_MiB));
    ASSERT_EQ(runCommand("mkfs.exfat -L 'MIT KORT' " + path), 0);
    const auto source = SourceOpener::openImage(path);
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes[0]->title(), "MIT KORT (exFAT)");
    EXPECT_TRUE(result.volumes[0]->notes.empty());

    // They insist on an up-case table and the boot region's checksum, which our images do not have.
    ExFATImage ours;
    ours.addSet(ours.root(), { .name = u"Vores længere filnavn æøå.txt" });
    const auto geometry = ExFATGeometry::from(
        ExFATBootSector::from(source->read(0, 512, ReadMode::thorough)).value(), 0)
                              .value();
    auto image = readFile(path);
    auto at = static_cast<std::size_t>(geometry.heap.offsetOf(geometry.rootCluster));
    while (image.at(at) != 0)
        at += 32;
    std::ranges::copy(
        std::span(ours.bytes()).subspan(ours.entryOffset(ours.root(), 2), 4 * 32), &image.at(at));
    writeFile(path, image);
    std::string output;
    EXPECT_EQ(runCommand("fsck.exfat -n " + path, &output), 0) << output;
    EXPECT_NE(output.find("files 1"), std::string::npos) << output;
}

TEST(ExFAT, ReadsWhatAnotherDriverWroteAndDeleted)
{
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    const TemporaryFolder folder;
    const auto image = folder / "kort.img";
    const auto release = "losetup -d $(losetup -j " + image + " -O NAME -n)";
    std::filesystem::create_directory(folder / "mnt");
    std::string output;
    if (runCommand("truncate -s 32M " + image + " && mkfs.exfat " + image
                + " && loop=$(losetup -f --show " + image + ") && mount.exfat-fuse $loop "
                + (folder / "mnt"),
            &output)
        != 0) {
        runCommand(release);
        GTEST_SKIP() << "needs to mount a loop device by exfat-fuse: " << output;
    }
    const std::string script = "cd " + (folder / "mnt")
        + " && mkdir -p DCIM væk && for i in 1 2 3; do head -c $((i * 30001)) /dev/urandom > "
          "DCIM/Billede\\ $i.jpg; "
          "done"
          " && head -c 70000 /dev/urandom > æøå.bin && head -c 70000 /dev/urandom >> "
          "DCIM/Billede\\ 1.jpg"
          " && echo inde > væk/inde.txt && cp -r . ../alt && rm -r væk DCIM/Billede\\ 2.jpg";
    EXPECT_EQ(runCommand(script, &output), 0) << output;
    ASSERT_EQ(runCommand("umount " + (folder / "mnt") + " && " + release, &output), 0) << output;

    const auto source = SourceOpener::openImage(image);
    const auto volume = ExFATParser::parse(*source, 0, "", nullptr);
    ASSERT_TRUE(volume);
    const auto files = volume->root->allFiles();
    EXPECT_EQ(files.size(), 5u);
    for (const auto* node : files) {
        const auto path = node->path();
        EXPECT_EQ(FileReader::readPrefix(*node, *source, 1_MiB), readFile(folder / ("alt" + path)))
            << path;
        const bool isDeleted = node->name == "inde.txt" || node->name == "Billede 2.jpg";
        EXPECT_EQ(node->status, isDeleted ? EntryStatus::deleted : EntryStatus::existing) << path;
        EXPECT_EQ(chance(*node), "God") << path;
    }
}
