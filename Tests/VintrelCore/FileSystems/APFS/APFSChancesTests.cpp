// What is left of deleted files, by what the container says is in use.

#include "Tests/Support/ParsedAPFS.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr std::uint64_t blockSize = APFSImage::blockSize;
using Notes = std::vector<std::string>;

} // namespace

TEST(APFSChances, JudgesDeletedFilesByWhatTheirBlocksAreUsedForNow)
{
    APFSImage image({});
    const auto content = patternBytes(2 * blockSize);
    std::vector<std::uint64_t> blocks;
    for (int i = 0; i < 7; ++i)
        blocks.push_back(image.store(content));
    const auto file = [&](std::uint64_t id, std::uint64_t parent, const std::string& name,
                          std::uint64_t block) {
        return image.file(
            { .id = id, .parent = parent, .name = name, .size = content.size() }, block);
    };
    const auto kept = image.folder(16, 2, "mappe") + file(20, 16, "bliver", blocks[0]);
    const auto before = image.file(
        { .id = 30, .parent = 2, .name = "gammelt navn", .size = content.size() - 1 }, blocks[6]);
    image.commit({ kept, before });
    image.commit({ kept + file(21, 2, "gammel", 0),
        file(30, 16, "hel", 0) + Leaf { image.extent(30, 0, blockSize, blocks[1]) }
            + file(31, 16, "delvis", blocks[2]) + file(32, 16, "genbrugt", blocks[3])
            + file(33, 16, "i kø", blocks[4]) + image.folder(17, 2, "væk")
            + file(34, 17, "inde", blocks[5]) + file(35, 16, "ukendt", 0)
            + file(36, 999, "løs", blocks[5]) + file(37, 2, "igen", blocks[0])
            + file(38, 16, "i brug", blocks[0]) });
    for (const auto i : { 1u, 2u, 3u, 5u, 6u })
        for (const auto block : { blocks[i], blocks[i] + 1 })
            image.setFree(block);
    image.setAllocated(blocks[2] + 1);
    image.setAllocated(blocks[3]);
    image.freeQueue = { { blocks[4], 1 }, { blocks[4] + 1, 1 } };
    image.commit({ kept + file(21, 2, "ny", 0) + file(50, 2, "igen", blocks[0]), {} });

    const std::pair<const char*, const char*> expected[] = { { "/mappe/hel", "God" },
        { "/mappe/delvis", "Delvis: Dele af filen kan være overskrevet" },
        { "/mappe/genbrugt", "Ringe: Blokkene er genbrugt af andre filer" },
        { "/mappe/i kø", "God" }, { "/væk/inde", "God" },
        { "/mappe/ukendt", "Ringe: Filens blokke kendes ikke" },
        { "/$Forældreløse filer/løs", "God" },
        { "/mappe/i brug", "Ringe: Blokkene er genbrugt af andre filer" } };
    const auto disk = parse(image);
    for (const auto& [path, text] : expected) {
        EXPECT_EQ(chance(disk[path]), text) << path;
        EXPECT_EQ(disk[path].status, EntryStatus::deleted) << path;
    }
    EXPECT_EQ(disk["/væk"].status, EntryStatus::deleted);
    EXPECT_EQ(disk["/mappe/hel"].data, // of the newest state, and what only an older one knows
        FileData(ExtentList { { image.offsetOf(blocks[1]), blockSize },
            { image.offsetOf(blocks[6] + 1), blockSize } }));
    // What was renamed, and what has its name and blocks again, is not listed a second time.
    EXPECT_EQ(disk["/igen"].status, EntryStatus::existing);
    EXPECT_EQ(disk.volume->root->totals().files, 11u) << disk.names();
    EXPECT_TRUE(disk.volume->notes.empty());

    auto without = image;
    breakChecksum(without, APFSImage::descriptorBlocks + 5); // the space manager
    const std::string unknown = "Ukendt: Det vides ikke, om pladsen er genbrugt";
    const auto unsaid = parse(without);
    EXPECT_EQ(chance(unsaid["/mappe/genbrugt"]), unknown);
    EXPECT_EQ(chance(unsaid["/mappe/hel"]), unknown);
    EXPECT_EQ(chance(unsaid["/mappe/i brug"]), "Ringe: Blokkene er genbrugt af andre filer")
        << "by the live trees alone";
    EXPECT_EQ(unsaid.volume->notes, Notes { "Oversigten over ledig plads kunne ikke læses." });

    const auto bitmap = image.offsetOf(APFSImage::bitmapBlock);
    const auto partly = parse(image, 0, { bitmap + 4000, bitmap + 4001 });
    EXPECT_EQ(chance(partly["/mappe/genbrugt"]), unknown);
    EXPECT_EQ(chance(partly["/mappe/i kø"]), "God") << "the queue alone says that it is free";
    EXPECT_EQ(partly.volume->notes,
        Notes { "Dele af oversigten over ledig plads kunne ikke læses (4096 bytes)." });
}

TEST(APFSChances, AFileThatWasReplacedByOneOfItsNameIsListedBesideIt)
{
    APFSImage image({});
    const auto before = patternBytes(blockSize, 1);
    const auto after = patternBytes(blockSize, 2);
    const auto old = image.store(before);
    const auto kept = image.file({ .id = 22, .parent = 2, .name = "tom" });
    image.commit(
        { kept + image.file({ .id = 20, .parent = 2, .name = "brev", .size = blockSize }, old) });
    image.setFree(old);
    const auto now = image.store(after);
    image.commit({ image.file({ .id = 23, .parent = 2, .name = "tom" })
        + image.file({ .id = 21, .parent = 2, .name = "brev", .size = blockSize }, now) });
    const auto disk = parse(image);
    EXPECT_EQ(disk.names(), " /brev /brev /tom");
    const auto files = disk.volume->root->files();
    EXPECT_EQ(FileReader::readPrefix(*files[0], *disk.source, blockSize), after);
    EXPECT_EQ(FileReader::readPrefix(*files[1], *disk.source, blockSize), before);
    EXPECT_EQ(files[1]->status, EntryStatus::deleted);
    EXPECT_EQ(chance(*files[1]), "God");
}

TEST(APFSChances, ADeletedVolumeIsListedByAnOlderCheckpoint)
{
    APFSImage image({ .volumes = 2 });
    const auto content = patternBytes(blockSize);
    const auto whole = image.store(content);
    const auto reused = image.store(content);
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "bliver" }) });
    image.commit(
        { image.folder(16, 2, "mappe")
            + image.file({ .id = 21, .parent = 16, .name = "hel", .size = blockSize }, whole)
            + image.file({ .id = 22, .parent = 16, .name = "væk", .size = blockSize }, reused) },
        1);
    image.setFree(whole);
    image.deleteLastVolume();
    auto source = image.source();
    auto volumes = APFSParser::parse(*source, 0, "prøve", nullptr);
    ASSERT_EQ(volumes.size(), 2u);
    EXPECT_EQ(volumes[0]->origin, "prøve");
    EXPECT_EQ(volumes[1]->origin, "prøve, slettet APFS-volumen");
    const Parsed deleted { std::move(source), std::move(volumes[1]) };
    EXPECT_EQ(deleted.names(), " /mappe /mappe/hel /mappe/væk");
    EXPECT_EQ(deleted.volume->root->totals().deleted, 2u);
    EXPECT_EQ(deleted.content("/mappe/hel"), content);
    EXPECT_EQ(chance(deleted["/mappe/hel"]), "God");
    EXPECT_EQ(chance(deleted["/mappe/væk"]), "Ringe: Blokkene er genbrugt af andre filer");
}

TEST(APFSChances, OfDeletedFilesInTheSameBlocksTheLastOneHasThem)
{
    const std::string first = "Ringe: Begyndelsen er genbrugt af en anden slettet fil";
    const std::string part = "Delvis: Dele af filen kan være overskrevet af en anden slettet fil";
    const struct {
        const char* what;
        std::uint64_t olderStart, newerStart; // blocks, of two each
        bool isOlderCloned, isNewerCloned;
        bool isOneState;
        std::string older;
    } rows[] = {
        { "the same blocks", 0, 0, false, false, false, first },
        { "the older one's first block", 1, 0, false, false, false, first },
        { "the older one's second block", 0, 1, false, false, false, part },
        { "other blocks", 0, 2, false, false, false, "God" },
        { "clones", 0, 0, true, true, false, "God" },
        { "a clone of others", 0, 0, true, false, false, first },
        { "one state of the disk", 0, 0, false, false, true, "God" },
    };
    for (const auto& [what, olderStart, newerStart, isOlderCloned, isNewerCloned, isOneState,
             older] : rows) {
        SCOPED_TRACE(what);
        APFSImage image({});
        const auto block = image.store(patternBytes(4 * blockSize));
        const auto file
            = [&](std::uint64_t id, const char* name, std::uint64_t start, bool isCloned) {
                  return image.file({ .id = id,
                                        .parent = 2,
                                        .name = name,
                                        .size = 2 * blockSize,
                                        .isCloned = isCloned },
                      block + start);
              };
        const auto before = file(20, "før", olderStart, isOlderCloned);
        const auto after = file(21, "efter", newerStart, isNewerCloned);
        if (isOneState) {
            image.commit({ before + after });
        } else {
            image.commit({ before });
            image.commit({ after });
        }
        for (auto freed = block; freed < block + 4; ++freed)
            image.setFree(freed);
        image.commit({ {} });
        const auto disk = parse(image);
        EXPECT_EQ(chance(disk["/før"]), older);
        EXPECT_EQ(chance(disk["/efter"]), "God");
        EXPECT_TRUE(disk.volume->notes.empty());
    }
}

TEST(APFSChances, TellsOfMetadataThatCannotBeRead)
{
    APFSImage image({});
    const auto kept = image.file({ .id = 21, .parent = 2, .name = "to" });
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "en" }), kept });
    const auto oldLeaf = image.leafBlock(0);
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "ny" }), kept });
    const auto map
        = ByteView(image.bytes())
              .u64le(static_cast<std::int64_t>(image.offsetOf(image.volumeSuperblock()) + 128));
    const std::string lost = " kunne ikke læses (4096 bytes).";
    const std::string damaged
        = "Dele af filtræet er beskadiget. Filer kan mangle eller stå i en ældre udgave.";
    const struct {
        const char* what;
        std::uint64_t block;
        Notes notes;
    } rows[] = {
        { "the container's object map", image.containerMap(),
            { "Det nyeste checkpoint kan ikke bruges. Et ældre er læst i stedet.",
                "Dele af containerens objektkort" + lost + " Volumener kan mangle." } },
        { "the volume's object map", map,
            { "Dele af volumens objektkort" + lost + " Filer kan mangle.", damaged } },
        { "a leaf", image.leafBlock(1), { damaged, "Dele af filtræet" + lost } },
        { "a leaf of an older state", oldLeaf,
            { "Dele af filtræets ældre udgaver" + lost + " Slettede filer kan mangle." } },
        { "content", 250, {} },
    };
    for (const auto& [what, block, notes] : rows)
        EXPECT_EQ(
            parse(image, 0, { image.offsetOf(block), image.offsetOf(block) + 1 }).volume->notes,
            notes)
            << what;
}

TEST(APFSChances, TheSpaceManagerSaysWhatIsInUse)
{
    using Ranges = std::vector<ByteRange>;
    for (const std::uint64_t flags : { 1u, 0u }) { // readable, and encrypted
        APFSImage image({ .base = 512, .flags = flags });
        const auto queued = image.store(patternBytes(3 * blockSize));
        image.freeQueue = { { queued + 1, 1 } };
        image.commit({ {} });
        image.setAllocated(299); // told by the next checkpoint
        image.commit({ {} });
        auto end = queued;
        while (end < 290
            && !std::ranges::all_of(
                ByteView(image.bytes())
                    .sub(static_cast<std::int64_t>(image.offsetOf(end)), blockSize)
                    .span(),
                [](std::uint8_t byte) { return byte == 0; }))
            ++end;
        const auto at = [&](std::uint64_t block) { return image.offsetOf(block); };
        const Ranges start { { at(0), at(queued + 1) }, { at(queued + 2), at(end) } };
        const auto bitmap = at(APFSImage::bitmapBlock);
        const struct {
            const char* what;
            std::uint64_t sourceEnd;
            ByteRange unreadable;
            std::optional<Ranges> used; // none: it cannot be said
        } rows[] = {
            { "all", at(300), {}, Ranges { start[0], start[1], { at(299), at(300) } } },
            { "a cut source", at(299) + 512, {},
                Ranges { start[0], start[1], { at(299), at(299) + 512 } } },
            { "an unreadable bitmap", at(300), { bitmap, bitmap + 1 }, {} },
        };
        for (const auto& [what, sourceEnd, unreadable, used] : rows) {
            auto cut = image;
            cut.bytes().resize(sourceEnd);
            const auto source = cut.source();
            source->addSimulatedBadRange(unreadable);
            const auto volumes = APFSParser::parse(*source, 512, "prøve", nullptr);
            ASSERT_EQ(volumes.size(), 1u) << what;
            Ranges found;
            EXPECT_EQ(APFSParser::addUsedRanges(*source, *volumes[0], found), used.has_value())
                << what;
            EXPECT_EQ(found, used.value_or(Ranges {})) << what;
        }
    }
}

TEST(APFSChances, TheSpaceManagerFindsChunksByThemselvesAndByAddressBlocks)
{
    for (const bool hasAddressBlock : { false, true }) {
        APFSImage image({ .hasAddressBlock = hasAddressBlock });
        const auto reused = image.store(patternBytes(blockSize));
        const auto freed = image.store(patternBytes(blockSize));
        image.commit(
            { image.file({ .id = 20, .parent = 2, .name = "genbrugt", .size = 4096 }, reused)
                + image.file({ .id = 21, .parent = 2, .name = "hel", .size = 4096 }, freed) });
        image.setFree(freed);
        image.commit({ {} });
        const auto disk = parse(image);
        EXPECT_TRUE(disk.volume->notes.empty()) << hasAddressBlock;
        EXPECT_EQ(chance(disk["/hel"]), "God");
        EXPECT_EQ(chance(disk["/genbrugt"]), "Ringe: Blokkene er genbrugt af andre filer");
    }
}

TEST(APFSChances, NothingIsCalledFreeByWhatIsDamagedOrOfAnotherCheckpoint)
{
    APFSImage image({});
    const auto freed = image.store(patternBytes(blockSize));
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "fil", .size = 4096 }, freed) });
    image.freeQueue = { { freed, 1 } };
    image.commit({ {} });
    ASSERT_EQ(chance(parse(image)["/fil"]), "God");
    const auto area = 1 + APFSImage::descriptorBlocks + 2; // of the newest checkpoint's objects
    const std::string unknown = "Ukendt: Det vides ikke, om pladsen er genbrugt";
    const std::string reused = "Ringe: Blokkene er genbrugt af andre filer";
    const struct {
        const char* what;
        std::uint64_t block, at, value;
        std::string chance;
    } rows[] = {
        { "an older space manager", area, 16, 1, unknown },
        { "an older queue", area + 1, 16, 1, reused },
        { "another tree", area + 1, 28, 14, reused },
    };
    for (const auto& [what, block, at, value, expected] : rows) {
        auto damaged = image;
        putLE(damaged.bytes(), image.offsetOf(block) + at, value, 4);
        damaged.sign(block);
        EXPECT_EQ(chance(parse(damaged)["/fil"]), expected) << what;
    }
    image.freeQueue.clear();
    image.setFree(freed);
    image.commit({ {} });
    ASSERT_EQ(chance(parse(image)["/fil"]), "God");
    const auto bitmap = image.bytes().begin()
        + static_cast<std::ptrdiff_t>(image.offsetOf(APFSImage::bitmapBlock));
    std::fill_n(bitmap, blockSize, std::uint8_t { 0 });
    EXPECT_EQ(chance(parse(image)["/fil"]), unknown) << "an emptied bitmap";
}

TEST(APFSChances, ASnapshotKeepsDeletedFilesWhole)
{
    APFSImage image({ .snapshots = 1 });
    const auto block = image.store(patternBytes(blockSize));
    image.commit({ image.file({ .id = 20, .parent = 2, .name = "holdt", .size = 4096 }, block) });
    image.commit({ {} });
    EXPECT_EQ(chance(parse(image)["/holdt"]), "God: Bevaret i et snapshot")
        << "though its block is in use";
    EXPECT_EQ(
        parse(image).volume->notes, Notes { "Volumen har snapshots. De vises ikke for sig." });
}
