#include "Tests/Support/ParsedAPFS.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

namespace {

constexpr std::uint64_t blockSize = APFSImage::blockSize;
using Notes = std::vector<std::string>;

std::vector<std::uint64_t> leavesIn(const Bytes& bytes)
{
    std::vector<std::uint64_t> offsets;
    for (std::uint64_t offset = 0; offset < bytes.size(); offset += blockSize)
        if (APFSParser::looksLikeFSTreeLeaf(bytes, static_cast<std::int64_t>(offset)))
            offsets.push_back(offset);
    return offsets;
}

} // namespace

TEST(APFS, ChecksumIsTheSumOfSumsAndZeroNeverPasses)
{
    for (const std::size_t size : { 64u, 4096u, 65536u, 400'003u }) {
        Bytes bytes(size, 0xFF); // the largest sums
        bytes[size / 2] = 7;
        std::uint64_t sum1 = 0, sum2 = 0;
        for (std::size_t at = 8; at + 4 <= size; at += 4) {
            sum1 = (sum1 + ByteView(bytes).u32le(static_cast<std::int64_t>(at))) % 0xFFFFFFFF;
            sum2 = (sum2 + sum1) % 0xFFFFFFFF;
        }
        const auto check1 = 0xFFFFFFFF - (sum1 + sum2) % 0xFFFFFFFF;
        const auto sum = (0xFFFFFFFF - (sum1 + check1) % 0xFFFFFFFF) << 32 | check1;
        EXPECT_EQ(APFSParser::fletcher64(bytes), sum) << size;
        putLE(bytes, 0, sum, 8);
        EXPECT_TRUE(APFSParser::checksumOK(bytes));
    }
    EXPECT_FALSE(APFSParser::checksumOK(Bytes(4096)));
}

TEST(APFS, TellsNodesAndLeavesByTheirHeaders)
{
    APFSImage image({});
    image.commit({ { image.file({ .id = 20, .parent = 2, .name = "fil" }) } });
    const auto leaf = image.leafBlock(0),
               root = leaf + 1; // the root's values lie before its footer
    const auto source = image.source();
    const auto container = APFSContainer::open(*source, 0);
    const auto nodeAt = [&](const Bytes& bytes, std::uint64_t block) {
        return container->parseNode(
            ByteView(bytes).sub(static_cast<std::int64_t>(image.offsetOf(block)), blockSize), 0, 0);
    };
    EXPECT_EQ(leavesIn(image.bytes()), std::vector { image.offsetOf(leaf) });
    EXPECT_EQ(nodeAt(image.bytes(), leaf)->records.at(2).value.u64le(0), 2u)
        << "the inode's parent";
    EXPECT_EQ(nodeAt(image.bytes(), root)->records.at(0).value.u64le(0), APFSImage::firstLeafOID);
    EXPECT_EQ(nodeAt(image.bytes(), root)->level, 1u);

    const struct {
        std::uint64_t at, value;
        bool isLeaf;
        std::optional<std::size_t> records; // none: no node
    } changes[] = { { 24, 2, true, 3 }, { 24, 4, false, {} }, { 28, 11, false, 3 },
        { 32, 0, false, 3 }, { 34, 1, false, 3 }, { 36, 0, false, 0 }, { 36, 10'000, false, {} },
        { 42, 4040, true, {} }, { 66, 4000, true, 1 }, { 68, 5000, true, 1 },
        { 68, 0xFFFF, true, 2 } };
    for (const auto& [at, value, isLeaf, count] : changes) {
        auto changed = image;
        putLE(changed.bytes(), image.offsetOf(leaf) + at, value, 2);
        EXPECT_TRUE(leavesIn(changed.bytes()).empty()) << "without a new checksum";
        changed.sign(leaf);
        EXPECT_EQ(!leavesIn(changed.bytes()).empty(), isLeaf) << at << " " << value;
        const auto node = nodeAt(changed.bytes(), leaf);
        EXPECT_EQ(node ? std::optional(node->records.size()) : std::nullopt, count)
            << at << " " << value;
    }
}

TEST(APFS, TheNewestUsableCheckpointCounts)
{
    APFSImage image({ .role = 64 });
    image.commit({ { image.file({ .id = 20, .parent = 2, .name = "før" }) } });
    image.commit({ { image.file({ .id = 21, .parent = 2, .name = "nu" }) } });
    EXPECT_EQ(parse(image).names(), " /før /nu");
    EXPECT_EQ(parse(image).volume->notes, Notes { "Rolle: Data" });

    auto stale = image; // the first block is seldom written
    putLE(stale.bytes(), 16, 1, 8);
    stale.sign(0);
    EXPECT_EQ(parse(stale)["/nu"].status, EntryStatus::existing);
    breakChecksum(stale, 0);
    EXPECT_EQ(parse(stale).volume->notes,
        (Notes { "Containerens superblok har forkert kontrolsum.", "Rolle: Data" }));
    EXPECT_EQ(parse(stale)["/nu"].status, EntryStatus::existing);

    auto unusable = image;
    breakChecksum(unusable, image.containerMap());
    const auto older = parse(unusable);
    ASSERT_TRUE(older.volume);
    EXPECT_EQ(older.names(), " /før");
    EXPECT_EQ(older.volume->notes[0],
        "Det nyeste checkpoint kan ikke bruges. Et ældre er læst i stedet.");

    const auto first = image.superblock() - 2;
    putLE(image.bytes(), image.offsetOf(first) + 16, 2,
        8); // the same transaction twice: the first place counts
    image.sign(first);
    breakChecksum(image, 0);
    EXPECT_EQ(parse(image).names(), " /før");
}

TEST(APFS, TheNewestSoundSuperblockSaysHowLargeBlocksAndContainerAre)
{
    const struct {
        const char* what;
        std::uint64_t at, value; // of the first block
        bool isSigned;
    } rows[] = {
        { "grown since the first block was written", 40, 30, true },
        { "a damaged count", 40, 30, false },
        { "a damaged block size", 36, 8192, false },
    };
    for (const auto& [what, at, value, isSigned] : rows) {
        SCOPED_TRACE(what);
        APFSImage image({});
        image.commit({ { image.file({ .id = 20, .parent = 2, .name = "fil" }) } });
        putLE(image.bytes(), 16, 0, 8);
        putLE(image.bytes(), at, value, 4);
        if (isSigned) {
            putLE(image.bytes(), 16, 1, 8); // as old as any
            putLE(image.bytes(), image.offsetOf(image.superblock()) + 16, 2, 8);
            image.sign(image.superblock());
            image.sign(0);
        }
        const auto disk = parse(image);
        ASSERT_TRUE(disk.volume);
        EXPECT_EQ(disk.names(), " /fil");
        EXPECT_EQ(disk.volume->size, 300 * blockSize);
    }
}

TEST(APFS, CheckpointsOfAnEarlierContainerListNothing)
{
    APFSImage image({});
    image.commit({ { image.file({ .id = 20, .parent = 2, .name = "før" }) } });
    const auto earlier = image.superblock();
    image.commit({ { image.file({ .id = 21, .parent = 2, .name = "nu" }) } });
    putLE(image.bytes(), image.offsetOf(earlier) + 72, 43, 8); // another UUID
    image.sign(earlier);
    EXPECT_EQ(parse(image).names(), " /nu");
}

TEST(APFS, ObjectMapsGiveTheNewestVersionThatIsAllowed)
{
    APFSImage image({});
    image.commit({ {} });
    const auto tree = image.containerMap() + 1; // a root without index
    const auto record
        = [&](std::uint64_t i, std::uint64_t xid, std::uint64_t block, std::uint64_t flags) {
              const auto at = image.offsetOf(tree), entry = at + 56 + 4 * i, key = at + 88 + 16 * i;
              const auto value = at + blockSize - 40 - 16 * (i + 1);
              const std::pair<std::uint64_t, std::uint64_t> words[]
                  = { { key, 9 }, { key + 8, xid }, { value, flags }, { value + 8, block } };
              for (const auto& [place, word] : words)
                  putLE(image.bytes(), place, word, 8);
              putLE(image.bytes(), at + 36, 2, 4);
              putLE(image.bytes(), entry, 16 * i | 16 * (i + 1) << 16, 4);
              image.sign(tree);
          };
    const auto blockAt = [&](std::uint64_t xid) {
        const auto source = image.source();
        auto map = APFSContainer::open(*source, 0)->loadOMap(image.containerMap(), xid);
        return map.contains(9) ? map[9] : 0;
    };
    record(0, 5, 50, 0);
    record(1, 7, 70, 0);
    EXPECT_EQ(blockAt(4), 0u);
    EXPECT_EQ(blockAt(6), 50u);
    EXPECT_EQ(blockAt(7), 70u);
    for (const auto flags : { 1u, 2u }) {
        record(1, 7, 70, flags);
        EXPECT_EQ(blockAt(8), 50u);
    }
}

TEST(APFS, ReadsFilesOfEveryKindByHashedAndPlainNames)
{
    for (const bool isHashed : { true, false }) {
        APFSImage image({ .base = 63 * 512, .isHashed = isHashed, .name = "Mit drev" });
        const auto content = patternBytes(3 * blockSize + 100);
        const auto block = image.store(content);
        const auto end = image.store(Bytes(content.begin() + 3 * blockSize, content.end()));
        const std::string utf8 = "A\u030Angstro\u0308m \xFF"; // keeps its form
        const auto header = std::string("fpmc\4\0\0\0\x39\x30\0\0\0\0\0\0", 16);
        image.commit({ image.folder(16, 2, "mappe")
                + image.file({ .id = 20, .parent = 16, .name = utf8, .size = content.size() })
                + Leaf { image.extent(20, 3 * blockSize, blockSize, end),
                    image.extent(20, 0, 3 * blockSize, block), image.entry(2, "link 2", 20),
                    image.sibling(20, 90, 2, "link 2") }
                + image.file({ .id = 21,
                    .parent = 2,
                    .name = "hul",
                    .size = 3 * blockSize,
                    .isSparse = true })
                + Leaf { image.extent(21, 0, blockSize, 0),
                    image.extent(21, blockSize, blockSize, block) }
                + image.file({ .id = 22, .parent = 2, .name = "klon", .size = 5, .privateID = 20 }),
            image.file({ .id = 23, .parent = 2, .name = "symlink", .mode = 0xA1ED })
                + Leaf { image.attribute(23, "com.apple.fs.symlink", "mappe/mål") }
                + image.file({ .id = 24, .parent = 2, .name = "pakket", .bsdFlags = 0x20 })
                + Leaf { image.attribute(24, "com.apple.decmpfs", header) }
                + image.file({ .id = 27, .parent = 2, .name = "i skyen", .bsdFlags = 0x40000060 })
                + Leaf { image.attribute(27, "com.apple.decmpfs", header) }
                + image.file({ .id = 25, .parent = 2, .name = "ressource" })
                + Leaf { image.attribute(25, "com.apple.ResourceFork", "længere oppe") }
                + image.file({ .id = 26, .parent = 3, .name = "26-dead" }),
            image.file({ .id = 30, .parent = 2, .name = "afkortet", .size = 2 * blockSize })
                + Leaf { image.extent(30, 0, blockSize, block), image.entry(2, "uden inode", 43) }
                + image.file({ .id = 31, .parent = 2, .name = "udenfor", .size = 10 }, 299'999) });
        const auto disk = parse(image, 63 * 512);
        EXPECT_EQ(disk.volume->title(), "Mit drev (APFS)");
        EXPECT_TRUE(disk.volume->notes.empty());
        const std::string shown = "/mappe/A\u030Angstro\u0308m \uFFFD";
        EXPECT_EQ(disk.content(shown), content);
        EXPECT_EQ(disk.content("/link 2"), content);
        EXPECT_EQ(disk.content("/klon"), Bytes(content.begin(), content.begin() + 5));
        EXPECT_EQ(disk.content("/symlink"), bytesOf("mappe/mål"));
        const Extent hole { std::nullopt, blockSize };
        EXPECT_EQ(disk["/hul"].data,
            FileData(ExtentList { hole, { image.offsetOf(block), blockSize }, hole }));
        for (const auto* path : { "/pakket", "/i skyen" }) {
            EXPECT_EQ(disk[path].size, 12345u) << path;
            EXPECT_EQ(disk.content(path), Bytes {}) << "nothing is made up: " << path;
        }
        EXPECT_EQ(disk[shown].created, Date(std::chrono::nanoseconds(1'600'000'000'000'000'000)));
        EXPECT_EQ(disk[shown].modified, *disk[shown].created + std::chrono::seconds(1));
        const std::pair<const char*, const char*> chances[] = { { "/hul", "God" },
            { "/symlink", "God" },
            { "/pakket",
                "Ringe: APFS-komprimeret fil – indholdet ligger i en skjult attribut og kan "
                "ikke gendannes direkte" },
            { "/i skyen", "Ringe: Filens indhold ligger kun i skyen og kan ikke gendannes herfra" },
            { "/ressource", "God: Filen har kun en ressourcegren på 13 bytes" },
            { "/afkortet", "Delvis: Kun dele af filens blokke kendes" },
            { "/udenfor", "Delvis: Kun dele af filens blokke kendes" },
            { "/uden inode", "Ringe: Filens inode blev ikke fundet" } };
        for (const auto& [path, text] : chances)
            EXPECT_EQ(chance(disk[path]), text) << path;
        EXPECT_EQ(disk.names().find("dead"), std::string::npos);
    }
}

TEST(APFS, CutsRingsOfFoldersAndKeepsWhatHangsBelowThem)
{
    APFSImage image({});
    image.commit({ image.folder(40, 41, "ring") + image.folder(41, 40, "ring 2")
        + image.folder(42, 42, "selv") + image.file({ .id = 43, .parent = 41, .name = "fil" })
        + image.folder(44, 99, "løs") + image.folder(45, 44, "under") });
    const auto disk = parse(image);
    const std::string orphans = " /$Forældreløse filer";
    EXPECT_EQ(disk.names(),
        orphans + orphans + "/løs" + orphans + "/løs/under" + orphans + "/ring" + orphans
            + "/ring/ring 2" + orphans + "/ring/ring 2/fil" + orphans + "/selv");
    EXPECT_EQ(disk["/$Forældreløse filer/ring"].status, EntryStatus::orphaned);
    EXPECT_EQ(disk["/$Forældreløse filer/ring/ring 2"].status, EntryStatus::existing);
}

TEST(APFS, SaysWhatCannotBeRead)
{
    APFSImage encrypted({ .flags = 0 });
    encrypted.commit({ { encrypted.file({ .id = 20, .parent = 2, .name = "fil" }) } });
    EXPECT_EQ(parse(encrypted).names(), "");
    EXPECT_EQ(parse(encrypted).volume->notes,
        Notes { "Volumen er krypteret (FileVault). Filerne kan ikke læses uden at låse disken op i "
                "macOS." });
}

TEST(APFS, TheNewestSoundSuperblockOfAVolumeCounts)
{
    APFSImage one({});
    one.commit({ { one.file({ .id = 20, .parent = 2, .name = "en" }) } });
    auto two = one;
    two.commit({ { two.file({ .id = 20, .parent = 2, .name = "ny" }) } });
    const auto flags = [](APFSImage& image) {
        image.bytes()[image.offsetOf(image.volumeSuperblock()) + 264] = 0; // "encrypted"
    };
    const auto magic = [](APFSImage& image) {
        image.bytes()[image.offsetOf(image.volumeSuperblock()) + 32] = 0;
    };
    const struct {
        const APFSImage& image;
        std::function<void(APFSImage&)> damage;
        std::string names, note;
    } rows[] = {
        { two, flags, " /en",
            "Volumens nyeste superblok er beskadiget. En ældre er brugt i stedet." },
        { two, magic, " /en",
            "Volumens nyeste superblok er beskadiget. En ældre er brugt i stedet." },
        { one, flags, " /en", "Volumens superblok har forkert kontrolsum." },
        { one, magic, "", "Volumens superblok er tabt. Volumens filer kan ikke læses uden den." },
    };
    for (const auto& [image, damage, names, note] : rows) {
        auto damaged = image;
        damage(damaged);
        const auto disk = parse(damaged);
        ASSERT_TRUE(disk.volume) << note;
        EXPECT_EQ(disk.names(), names);
        EXPECT_EQ(disk.volume->notes, Notes { note });
    }
}

TEST(APFS, OlderVersionsStepInForDamagedNodes)
{
    // The object map still knows the leaves of a tree whose roots are damaged too.
    APFSImage image({});
    const auto to = image.file({ .id = 21, .parent = 2, .name = "to" });
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "en" }), to });
    const auto oldRoot = image.leafBlock(1) + 1;
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "ny" }), to });
    breakChecksum(image, image.leafBlock(0));
    for (const auto root : { image.leafBlock(0) + 1, oldRoot, std::uint64_t { 0 } }) {
        const auto disk = parse(image);
        EXPECT_EQ(disk.names(), " /en /to");
        EXPECT_EQ(disk["/en"].status, EntryStatus::existing);
        EXPECT_EQ(disk["/to"].status, EntryStatus::existing);
        EXPECT_EQ(disk.volume->notes,
            Notes {
                "Dele af filtræet er beskadiget. Filer kan mangle eller stå i en ældre udgave." });
        breakChecksum(image, root);
    }
}

TEST(APFS, LooseLeavesGiveWhatNoCheckpointLeadsTo)
{
    APFSImage image({});
    const auto content = patternBytes(blockSize);
    const auto block = image.store(content);
    const auto kept = image.folder(16, 2, "mappe");
    image.commit({ kept,
        image.file({ .id = 30, .parent = 16, .name = "tabt", .size = 4096 }, block)
            + image.folder(31, 2, "tabt mappe")
            + image.file({ .id = 32, .parent = 31, .name = "inde" })
            + image.file({ .id = 33, .parent = 888, .name = "løs" }) });
    for (int i = 0; i < 7; ++i) // until the checkpoint area has forgotten it
        image.commit({ kept,
            image.file(
                { .id = 40, .parent = 2, .name = "ny", .size = static_cast<std::uint64_t>(i) }) });
    auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /mappe /ny");
    auto leaves = leavesIn(image.bytes());
    std::ranges::reverse(leaves);
    auto lost = APFSParser::lostFiles(*disk.source, *disk.volume, leaves, nullptr);
    ASSERT_TRUE(lost);
    disk.volume->root->add(std::move(lost));
    EXPECT_EQ(disk.names(),
        " /mappe /ny /$Forældreløse filer /$Forældreløse filer/mappe /$Forældreløse "
        "filer/mappe/tabt"
        " /$Forældreløse filer/tabt mappe /$Forældreløse filer/tabt mappe/inde /$Forældreløse "
        "filer/løs");
    EXPECT_EQ(disk.content("/$Forældreløse filer/mappe/tabt"), content);
    EXPECT_EQ(chance(disk["/$Forældreløse filer/mappe/tabt"]),
        "Ringe: Blokkene er genbrugt af andre filer")
        << "never freed";
    EXPECT_FALSE(APFSParser::lostFiles(*disk.source, *disk.volume, leaves, nullptr))
        << "all is listed by now";

    // Where the quick scan has made the folder for others, they join those.
    image.commit({ kept, image.file({ .id = 41, .parent = 777, .name = "før" }) });
    image.commit({ kept, {} });
    const auto joined = parse(image);
    EXPECT_FALSE(APFSParser::lostFiles(*joined.source, *joined.volume, leaves, nullptr));
    EXPECT_EQ(joined["/$Forældreløse filer"].children().size(), 4u) << joined.names();
    EXPECT_EQ(joined.content("/$Forældreløse filer/mappe/tabt"), content);
}

TEST(APFS, ALooseLeafOfAnEarlierContainerIsLeftAlone)
{
    // It says other things of the same numbers.
    APFSImage foreign({});
    foreign.commit({ { foreign.file({ .id = 16, .parent = 2, .name = "fremmed", .created = 5 })
        + foreign.file({ .id = 77, .parent = 2, .name = "x" }) } });
    const auto leaf
        = std::span(foreign.bytes()).subspan(foreign.offsetOf(foreign.leafBlock(0)), blockSize);
    APFSImage image({});
    image.commit({ image.folder(16, 2, "mappe") });
    const auto at = image.offsetOf(250);
    image.write(at, leaf);
    const auto disk = parse(image);
    EXPECT_FALSE(APFSParser::lostFiles(*disk.source, *disk.volume, std::vector { at }, nullptr));
    EXPECT_EQ(disk.names(), " /mappe");
}

TEST(APFS, ASuperblockFoundElsewhereLeadsToItsContainer)
{
    APFSImage image({ .base = 5 * 512 });
    for (int i = 0; i < 8; ++i) // once around the checkpoint area
        image.commit({ { image.file({ .id = 20, .parent = 2, .name = "fil" }) } });
    auto source = image.source();
    EXPECT_EQ(
        APFSParser::containerStart(*source, image.offsetOf(image.superblock())), image.offsetOf(0));
    EXPECT_EQ(APFSParser::containerStart(*source, image.offsetOf(0)), image.offsetOf(0));
    EXPECT_EQ(APFSParser::containerStart(*source, image.offsetOf(1)), std::nullopt);
    std::fill_n(image.bytes().begin() + static_cast<std::ptrdiff_t>(image.offsetOf(0)), blockSize,
        std::uint8_t { 0 });
    source = image.source();
    const auto volumes = APFSParser::parseFromSuperblock(
        *source, image.offsetOf(image.superblock()), "fundet", nullptr);
    ASSERT_EQ(volumes.size(), 1u);
    EXPECT_EQ(volumes[0]->root->totals().files, 1u);
    EXPECT_EQ(volumes[0]->notes,
        Notes { "Containerens første superblok er tabt. En af de andre er brugt." });
    EXPECT_TRUE(APFSParser::isInContainer(*volumes[0], image.offsetOf(0)));
    EXPECT_FALSE(APFSParser::isInContainer(*volumes[0], 0));
}

TEST(APFS, ALooseLeafGoesToTheVolumeThatItIsOf)
{
    constexpr std::uint64_t later = 1'700'000'000'000'000'000;
    const struct {
        const char* name;
        std::uint64_t other;   // object that the leaf describes beside the lost file; 0: none
        bool isNodeStillInUse; // the object map of its volume has the node, elsewhere
    } rows[] = {
        { "both have the number, with different dates", 20, false },
        { "one of them has the number", 25, false },
        { "neither has a number, but one has the node", 0, true },
    };
    for (const auto& [name, other, isNodeStillInUse] : rows) {
        SCOPED_TRACE(name);
        APFSImage image({ .blocks = 400, .volumes = 2 });
        const auto file = [&](std::uint64_t id, std::uint64_t size = 0) {
            return image.file({ .id = id,
                .parent = 2,
                .name = "fil " + std::to_string(id),
                .size = size,
                .created = later });
        };
        image.commit({ image.file({ .id = 20, .parent = 2, .name = "ældre" }) }, 0);
        auto lost = file(30);
        if (other != 0)
            lost.push_back(
                APFSImage::inode({ .id = other, .parent = 2, .name = "fil", .created = later }));
        image.commit({ file(20) + file(25), lost }, 1);
        for (std::uint64_t i = 0; i < 8; ++i) { // until the checkpoint area has forgotten it
            std::vector<Leaf> leaves { file(20) + file(25) + file(26, i) };
            if (isNodeStillInUse)
                leaves.push_back(file(40));
            image.commit(leaves, 1);
        }
        const auto source = image.source();
        const auto volumes = APFSParser::parse(*source, 0, "prøve", nullptr);
        ASSERT_EQ(volumes.size(), 2u);
        const auto leaves = leavesIn(image.bytes());
        EXPECT_FALSE(APFSParser::lostFiles(*source, *volumes[0], leaves, nullptr));
        const auto found = APFSParser::lostFiles(*source, *volumes[1], leaves, nullptr);
        ASSERT_TRUE(found);
        ASSERT_EQ(found->children().size(), 1u);
        EXPECT_EQ(found->children()[0]->name, "fil 30");
    }
}

TEST(APFS, TreesThatShareNodesAreReadWithinABound)
{
    // More versions of nodes than the disk has blocks, each in a block of something else and far
    // from the one before it, so that the source has to be asked for nearly every one.
    constexpr std::uint64_t blocks = 1024;
    constexpr std::uint64_t readsPerBlock = 10;
    APFSImage image({ .blocks = blocks, .blockBytes = 64_KiB });
    std::mt19937 random(1);
    for (std::uint64_t oid = 2000; oid < 6000; ++oid) {
        std::vector<std::uint64_t> versions(9);
        std::ranges::generate(versions, [&] { return 200 + random() % (blocks - 200); });
        image.addNode(oid, versions);
    }
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "fil" }) });
    const auto disk = parse(image);
    ASSERT_TRUE(disk.volume);
    EXPECT_LT(disk.source->bytesRead(),
        readsPerBlock * blocks * static_cast<std::uint64_t>(DiskSource::chunkSize));
}

TEST(APFS, FilesThatShareExtentsHaveNoMoreOfThemThanADiskHasRoomFor)
{
    APFSImage image({});
    const auto block = image.store(patternBytes(blockSize));
    Leaf records;
    constexpr std::uint64_t extents = 200, files = 1000;
    for (std::uint64_t i = 0; i < extents; ++i) // no two of which can be joined
        records.push_back(APFSImage::extent(16, i * blockSize, blockSize, block));
    for (std::uint64_t id = 100; id < 100 + files; ++id)
        records.push_back(APFSImage::inode({ .id = id,
            .parent = 2,
            .name = std::to_string(id),
            .size = extents * blockSize,
            .privateID = 16 }));
    image.commit(APFSImage::split(records, 15));
    const auto disk = parse(image);
    EXPECT_EQ(disk["/100"].recoverability, Recoverability::good);
    EXPECT_EQ(chance(disk["/1099"]), "Ringe: For mange filer deler de samme blokke");
}

TEST(APFS, AContainerIsToldByTheMagicOfItsFirstBlock)
{
    APFSImage image({});
    const auto head = [&](std::int64_t count) { return ByteView(image.bytes()).sub(0, count); };
    EXPECT_EQ(APFSParser::probe(head(4096)), std::nullopt);
    image.commit({ {} });
    EXPECT_EQ(APFSParser::probe(head(4096)), FileSystemType::apfs);
    EXPECT_EQ(APFSParser::probe(head(36)), FileSystemType::apfs);
    EXPECT_EQ(APFSParser::probe(head(35)), std::nullopt);
}
