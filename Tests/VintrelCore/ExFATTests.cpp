#include "Tests/Images/ExFATImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/ExFAT.h"
#include "VintrelCore/Scanner.h"
#include "VintrelCore/SourceOpener.h"

#include <gtest/gtest.h>

namespace {

Parsed parse(const ExFATImage& image)
{
    auto source = image.source();
    auto volume = ExFATParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

} // namespace

TEST(ExFAT, ListsAndReadsTheLiveTree)
{
    const ExFATImage::Options kinds[] = {
        {}, { .clusterShift = 3 }, { .sectorShift = 12 }, { .usesSecondFAT = true },
        { .clusters = 3, .clusterShift = 16 }, // clusters of 32 MiB
    };
    for (const auto& options : kinds) {
        SCOPED_TRACE(std::to_string(options.sectorShift) + ", " + std::to_string(options.clusterShift));
        ExFATImage image(options);
        const bool isRoomy = options.clusters > 100;
        const auto content = patternBytes(isRoomy ? 3000 : 70'000);
        if (isRoomy) {
            const auto folder = image.addFolder(image.root(), { .name = u"DCIM" }, 2);
            image.addFile(folder, { .name = u"Et navn på mere end fjorten enheder \U0001F600.jpg" }, content);
            const auto chained = image.addFile(folder, { .name = u"i stykker.bin", .isContiguous = false }, content);
            const auto clusters = (content.size() + image.clusterSize() - 1) / image.clusterSize();
            if (clusters > 1) { // the second cluster moves to the end of the heap
                const auto next = static_cast<std::uint32_t>(options.clusters);
                image.setFAT(chained, next);
                image.setFAT(next, clusters > 2 ? chained + 2 : ExFATImage::endMark);
                image.write(image.offsetOf(next),
                    Bytes(content.begin() + static_cast<std::ptrdiff_t>(image.clusterSize()),
                        content.begin()
                            + static_cast<std::ptrdiff_t>(
                                std::min<std::size_t>(2 * image.clusterSize(), content.size()))));
            }
            image.addFile(folder, { .name = u"TOM" }, {});
        } else {
            image.addFile(image.root(), { .name = u"stor.bin" }, content);
        }

        const auto card = parse(image);
        ASSERT_TRUE(card.volume);
        EXPECT_EQ(card.volume->title(), "KORT (exFAT)");
        EXPECT_EQ(card.volume->size, image.bytes().size());
        EXPECT_EQ(card.volume->clusterSize, image.clusterSize());
        EXPECT_TRUE(card.volume->notes.empty());
        if (!isRoomy) {
            EXPECT_EQ(card.content("/stor.bin"), content);
            continue;
        }
        const std::string longName = "/DCIM/Et navn på mere end fjorten enheder \U0001F600.jpg";
        EXPECT_EQ(card.content(longName), content);
        EXPECT_EQ(card.content("/DCIM/i stykker.bin"), content);
        EXPECT_EQ(chance(card["/DCIM/i stykker.bin"]), "God");
        EXPECT_EQ(card["/DCIM/TOM"].data, FileData(ExtentList {}));
        using namespace std::chrono;
        EXPECT_EQ(card[longName].modified, sys_days { 2025y / 10 / 3 } + 12h);
    }
}

TEST(ExFAT, DeletedSetsKeepTheirNamesAndTellTheirChances)
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
    image.addFile(image.root(), { .name = u"én klynge", .isContiguous = false }, bytesOf("1"));
    for (const auto* name : { u"hel", u"delvis", u"genbrugt", u"kæde", u"kæde væk", u"én klynge" })
        image.remove(image.root(), name);
    image.setUsed(partly + 2, true);
    image.setUsed(reused, true);
    image.setFAT(broken, 0);

    const std::pair<const char*, const char*> expected[] = {
        { "/hel", "God" },
        { "/delvis", "Delvis: Dele af filen kan være overskrevet" },
        { "/genbrugt", "Ringe: Startklyngen er genbrugt af en anden fil" },
        { "/kæde", "God" },
        { "/kæde væk", "Delvis: Klyngekæden er afbrudt" },
        { "/én klynge", "God" },
    };
    const auto card = parse(image);
    for (const auto& [path, text] : expected) {
        EXPECT_EQ(chance(card[path]), text) << path;
        EXPECT_EQ(card[path].status, EntryStatus::deleted) << path;
    }
    EXPECT_EQ(card.content("/kæde"), content);
    EXPECT_EQ(card.content("/kæde væk"), content);

    // Without the bitmap nothing is known of them.
    auto source = image.source();
    source->addSimulatedBadRange({ image.bitmapOffset(), image.bitmapOffset() + 1 });
    const auto volume = ExFATParser::parse(*source, 0, "", nullptr);
    EXPECT_EQ(volume->notes, std::vector<std::string> { "Allokeringsbitmappen kunne ikke læses." });
    for (const auto* node : volume->root->allFiles())
        EXPECT_EQ(chance(*node), "Ukendt") << node->name;
}

TEST(ExFAT, ImpossiblePlacesAndSizes)
{
    ExFATImage image;
    image.addSet(image.root(), { .name = u"udenfor", .cluster = 202, .size = 5 });
    image.addSet(image.root(), { .name = u"uden klynge", .cluster = 0, .size = 5 });
    image.addSet(image.root(), { .name = u"exabytes", .cluster = 50, .size = std::uint64_t { 1 } << 62 });
    image.addSet(image.root(), { .name = u"over kanten", .cluster = 200, .size = 2000 });
    const auto cut = image.addFile(image.root(), { .name = u"kort", .isContiguous = false }, patternBytes(1400));
    image.setFAT(cut + 1, 0xFFFFFFF7);
    const auto card = parse(image);
    EXPECT_EQ(chance(card["/udenfor"]), "Ringe: Ugyldig startklynge");
    EXPECT_EQ(chance(card["/uden klynge"]), "Ringe: Ugyldig startklynge");
    EXPECT_EQ(chance(card["/exabytes"]), "Ringe: Filens størrelse er større end diskens");
    EXPECT_EQ(card["/exabytes"].data, FileData(NoData {}));
    EXPECT_EQ(chance(card["/over kanten"]), "Delvis: Klyngekæden er afbrudt");
    EXPECT_EQ(card["/over kanten"].data, FileData(ExtentList { { image.offsetOf(200), 1024 } }));
    EXPECT_EQ(chance(card["/kort"]), "Delvis: Klyngekæden er afbrudt");
}

TEST(ExFAT, BeyondTheValidSizeAreZeros)
{
    ExFATImage image;
    const auto cluster = image.allocate(4, true);
    image.write(image.offsetOf(cluster), Bytes(2048, 'x'));
    for (const auto& [name, valid] : { std::pair { u"delvis", 700 }, { u"intet", 0 }, { u"alt", 2000 } })
        image.addSet(image.root(),
            { .name = name, .cluster = cluster, .size = 2000, .validSize = static_cast<std::uint64_t>(valid) });
    const auto card = parse(image);
    for (const auto& [path, valid] :
        { std::pair<const char*, std::size_t> { "/delvis", 700 }, { "/intet", 0 }, { "/alt", 2000 } }) {
        Bytes expected(valid, 'x');
        expected.resize(2000);
        EXPECT_EQ(card.content(path), expected) << path;
        EXPECT_EQ(chance(card[path]), "God") << path;
    }
}

TEST(ExFAT, DamagedSets)
{
    const std::u16string name = u"Et navn af tre stykker, det er langt.txt";
    const struct {
        const char* what;
        std::size_t entry, byte; ///< entry 0 is the file's, 1 the stream's, 2 … 4 the name's
        std::uint8_t value;
        bool isDeleted;
        std::string expected; ///< names with notes; empty: the set is skipped
    } cases[] = {
        { "sound", 4, 0, 0xC1, false, "Et navn af tre stykker, det er langt.txt [God]" },
        { "sound and deleted", 4, 0, 0x41, true, "Et navn af tre stykker, det er langt.txt [God]" },
        { "checksum", 0, 2, 0x00, false,
            "Et navn af tre stykker, det er langt.txt [Delvis: Mappeposten er beskadiget]" },
        { "count too small", 0, 1, 1, false,
            "Et navn af tre stykker, det er langt.txt [Delvis: Mappeposten er beskadiget]" },
        { "count too large", 0, 1, 200, false,
            "Et navn af tre stykker, det er langt.txt [Delvis: Mappeposten er beskadiget]" },
        { "file entry overwritten", 0, 0, 0xFF, true,
            "Et navn af tre stykker, det er langt.txt [Delvis: Mappeposten er beskadiget]" },
        { "end of the name overwritten", 4, 0, 0x85, true,
            "Et navn af tre stykker, det er [Delvis: Mappeposten er beskadiget]" },
        { "stream overwritten", 1, 0, 0x22, true, "" },
        { "forbidden character", 2, 2, '/', false, "" },
        { "valid size above the size", 1, 15, 0x10, false, "" },
    };
    for (const auto& [what, entry, byte, value, isDeleted, expected] : cases) {
        ExFATImage image;
        image.addFile(image.root(), { .name = name }, bytesOf("x"));
        image.addFile(image.root(), { .name = u"efter.txt" }, bytesOf("y"));
        if (isDeleted)
            image.remove(image.root(), name);
        image.bytes()[image.entryOffset(image.root(), 2 + entry) + byte] = value;
        std::string found;
        const auto card = parse(image);
        EXPECT_EQ(chance(card["/efter.txt"]), "God") << what;
        for (const auto* node : card.volume->root->files())
            if (node->name != "efter.txt")
                found += node->name + " [" + chance(*node) + "]";
        EXPECT_EQ(found, expected) << what;
    }
}

TEST(ExFAT, DeletedFoldersAreWalkedWhileTheirClustersHold)
{
    ExFATImage image({ .clusters = 400 });
    const auto folder = image.addFolder(image.root(), { .name = u"Ferie" }, 4);
    for (int i = 0; i < 15; ++i) // three entries each: sets lie across clusters
        image.addFile(
            folder, { .name = u"billede" + std::u16string(1, static_cast<char16_t>(u'a' + i)) }, patternBytes(600));
    const auto inner = image.addFolder(folder, { .name = u"Indre", .isContiguous = false }, 2);
    image.addFile(inner, { .name = u"dyb.txt" }, bytesOf("dyb"));
    image.addFolder(image.root(), { .name = u"Tom" });
    const auto overwritten = image.addFolder(image.root(), { .name = u"Væk" });
    const auto reused = image.addFolder(image.root(), { .name = u"Brugt" });
    image.addFile(reused, { .name = u"x" }, bytesOf("x"));
    image.write(image.offsetOf(overwritten), Bytes(512, 'x'));
    for (const auto* name : { u"Ferie", u"Tom", u"Væk", u"Brugt" })
        image.remove(image.root(), name);
    image.setUsed(reused, true);
    image.setUsed(folder + 2, true); // somebody has taken the third cluster
    image.write(image.offsetOf(folder + 2), Bytes(512, 'y'));

    const auto card = parse(image);
    EXPECT_EQ(card["/Ferie"].children().size(), 10u);
    EXPECT_EQ(card["/Ferie/billedea"].status, EntryStatus::deleted);
    EXPECT_FALSE(card["/Ferie"].note);
    EXPECT_FALSE(card["/Tom"].note);
    EXPECT_EQ(*card["/Væk"].note, "Mappens indhold er overskrevet");
    EXPECT_EQ(*card["/Brugt"].note, "Mappens indhold er overskrevet");

    image.setUsed(folder + 2, false);
    image.write(image.offsetOf(folder + 2), Bytes(512)); // and given it back, empty: the directory seems to end
    EXPECT_EQ(parse(image)["/Ferie"].children().size(), 10u);
}

TEST(ExFAT, DirectoriesThatLoopNestOrShareClusters)
{
    ExFATImage image({ .clusters = 600 });
    const auto loop = image.addFolder(image.root(), { .name = u"Løkke", .isContiguous = false });
    image.setFAT(loop, loop);
    image.addSet(loop, { .name = u"rod", .attributes = 0x10, .cluster = image.root(), .size = 512 });
    image.addSet(loop, { .name = u"selv", .attributes = 0x10, .cluster = loop, .size = std::uint64_t { 1 } << 60 });
    auto folder = image.addFolder(image.root(), { .name = u"D" });
    for (int level = 2; level <= 70; ++level)
        folder = image.addFolder(folder, { .name = u"D" });
    const auto card = parse(image);
    EXPECT_EQ(card["/Løkke"].children().size(), 2u);
    EXPECT_TRUE(card["/Løkke/selv"].children().empty());
    EXPECT_TRUE(card["/Løkke/rod"].children().empty());
    std::size_t deepest = 0;
    card.volume->root->forEachDescendant(
        [&](const FileNode&, std::size_t depth) { deepest = std::max(deepest, depth); });
    EXPECT_EQ(deepest, 64u);

    ExFATImage crowded({ .clusters = 600 });
    const auto shared = crowded.addFolder(crowded.root(), { .name = u"Mange" }, 300);
    for (std::uint32_t i = 0; i < 300 * 16 / 3 - 1; ++i)
        crowded.addSet(shared, { .name = u"m", .attributes = 0x10, .cluster = shared + i % 300, .size = 300 * 512 });
    const auto totals = parse(crowded).volume->root->totals();
    EXPECT_GE(totals.folders, 1500u);
    EXPECT_LE(totals.folders, crowded.bytes().size() / 96);
}

TEST(ExFAT, UnreadableOrMissingTables)
{
    ExFATImage image;
    const auto content = patternBytes(1400);
    image.addFile(image.root(), { .name = u"samlet" }, content);
    image.addFile(image.root(), { .name = u"kæde", .isContiguous = false }, content);
    image.addFile(image.root(), { .name = u"slettet", .isContiguous = false }, content);
    image.remove(image.root(), u"slettet");
    auto source = image.source();
    source->addSimulatedBadRange({ image.fatOffset(), image.fatOffset() + image.fatSize() });
    const auto volume = ExFATParser::parse(*source, 0, "", nullptr);
    EXPECT_EQ(volume->notes,
        std::vector<std::string> { "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende." });
    ASSERT_EQ(volume->root->children().size(), 3u);
    for (const auto& node : volume->root->children())
        EXPECT_EQ(chance(*node), node->status == EntryStatus::existing ? "God" : "Ukendt") << node->name;

    ExFATImage bare({ .hasBitmap = false });
    bare.addFile(bare.root(), { .name = u"fil" }, content);
    bare.addFile(bare.root(), { .name = u"slettet" }, content);
    bare.remove(bare.root(), u"slettet");
    const auto card = parse(bare);
    EXPECT_EQ(card.volume->notes, std::vector<std::string> { "Allokeringsbitmappen kunne ikke læses." });
    EXPECT_EQ(chance(card["/fil"]), "God");
    EXPECT_EQ(chance(card["/slettet"]), "Ukendt");
}

TEST(ExFAT, BackupBootSectorsAndImpossibleOnes)
{
    ExFATImage image;
    image.addFile(image.root(), { .name = u"fil" }, bytesOf("x"));
    const Bytes boot(image.bytes().begin(), image.bytes().begin() + 512);
    image.write(0, Bytes(512));
    auto source = image.source();
    EXPECT_FALSE(ExFATParser::parse(*source, 0, "", nullptr));
    ASSERT_TRUE(ExFATParser::parse(*source, 0, "", nullptr, ByteView(boot)));

    const struct {
        const char* what;
        std::size_t at;
        Bytes value;
    } damages[] = {
        { "name", 3, bytesOf("EXFOT") },
        { "sector shift", 108, { 8 } },
        { "cluster shift", 109, { 17 } },
        { "no clusters", 92, { 0, 0, 0, 0 } },
        { "heap beyond the volume", 88, { 0xFF, 0xFF, 0xFF, 0x7F } },
        { "volume of 2^64 sectors", 72, Bytes(8, 0xFF) },
    };
    for (const auto& [what, at, value] : damages) {
        auto copy = boot;
        std::copy(value.begin(), value.end(), copy.begin() + static_cast<std::ptrdiff_t>(at));
        EXPECT_FALSE(ExFATParser::parse(*source, 0, "", nullptr, ByteView(copy))) << what;
    }
}

TEST(ExFAT, ImagesOfOtherToolsAndSystems)
{
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    if (!hasProgram("mkfs.exfat"))
        GTEST_SKIP() << "needs exfatprogs";
    // An empty volume of theirs.
    const TemporaryFolder folder;
    writeFile(folder / "tom.img", Bytes(4_MiB));
    ASSERT_EQ(runCommand("mkfs.exfat -L 'MIT KORT' " + (folder / "tom.img")), 0);
    const auto source = SourceOpener::openImage(folder / "tom.img");
    const auto result = QuickScanner::run(*source, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes[0]->title(), "MIT KORT (exFAT)");
    EXPECT_TRUE(result.volumes[0]->notes.empty());
    EXPECT_TRUE(result.volumes[0]->root->children().empty());

    // And a full one of ours, as they see it. They insist on an up-case table and the boot region's checksum, which a
    // reader does not need: our sets are put into their volume.
    const auto geometry = ExFATGeometry::from(source->read(0, 512, ReadMode::thorough), 0);
    ASSERT_TRUE(geometry);
    auto image = readFile(folder / "tom.img");
    ExFATImage ours({ .clusters = 100 });
    ours.addSet(ours.root(), { .name = u"Vores længere filnavn æøå.txt" });
    const auto& heap = geometry->heap;
    auto at = static_cast<std::int64_t>(heap.offsetOf(geometry->rootCluster));
    while (ByteView(image).u8(at) != 0)
        at += 32;
    std::copy_n(ours.bytes().begin() + static_cast<std::ptrdiff_t>(ours.entryOffset(ours.root(), 2)), 4 * 32,
        image.begin() + at);
    writeFile(folder / "fuld.img", image);
    std::string output;
    EXPECT_EQ(runCommand("fsck.exfat -n " + (folder / "fuld.img"), &output), 0) << output;
    EXPECT_NE(output.find("files 1"), std::string::npos) << output;
    const auto full = SourceOpener::openImage(folder / "fuld.img");
    const auto volume = ExFATParser::parse(*full, 0, "", nullptr);
    ASSERT_EQ(volume->root->children().size(), 1u);
    EXPECT_EQ(volume->root->children()[0]->name, "Vores længere filnavn æøå.txt");
}

TEST(ExFAT, AVolumeThatAnotherDriverFilled)
{
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin:/sbin").c_str(), 1);
    const TemporaryFolder folder;
    const std::string image = folder / "kort.img";
    std::filesystem::create_directory(folder / "mnt");
    std::string output;
    if (runCommand("truncate -s 32M " + image + " && mkfs.exfat " + image + " && loop=$(losetup -f --show " + image
                + ") && mount.exfat-fuse $loop " + (folder / "mnt"),
            &output)
        != 0) {
        runCommand("losetup -d $(losetup -j " + image + " -O NAME -n)");
        GTEST_SKIP() << "needs to mount a loop device by exfat-fuse: " << output;
    }
    const std::string script = "cd " + (folder / "mnt")
        + " && mkdir -p DCIM/100KAM væk && for i in 1 2 3 4; do head -c $((i * 30001)) /dev/urandom > "
          "DCIM/100KAM/Billede\\ $i.jpg; done"
          " && (head -c 70000 /dev/urandom; echo) > æøå.bin && head -c 70000 /dev/urandom >> DCIM/100KAM/Billede\\ "
          "1.jpg"
          " && echo inde > væk/inde.txt && cp -r . ../alt && rm -r væk DCIM/100KAM/Billede\\ 2.jpg";
    EXPECT_EQ(runCommand(script, &output), 0) << output;
    ASSERT_EQ(
        runCommand("umount " + (folder / "mnt") + " && losetup -d $(losetup -j " + image + " -O NAME -n)", &output), 0)
        << output;

    const auto source = SourceOpener::openImage(image);
    const auto volume = ExFATParser::parse(*source, 0, "", nullptr);
    ASSERT_TRUE(volume);
    std::size_t files = 0;
    for (const auto* node : volume->root->allFiles()) {
        ++files;
        EXPECT_EQ(FileReader::readPrefix(*node, *source, 1_MiB), readFile(folder / ("alt" + node->path())))
            << node->path();
        const bool isDeleted = node->name == "inde.txt" || node->name == "Billede 2.jpg";
        EXPECT_EQ(node->status, isDeleted ? EntryStatus::deleted : EntryStatus::existing) << node->path();
        EXPECT_EQ(chance(*node), "God") << node->path();
    }
    EXPECT_EQ(files, 6u);
}
