#include "Tests/Images/ExtImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"
#include "VintrelCore/Foundation/CRC16.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

constexpr std::uint64_t folderBlock = 100, fileBlock = 110;

Parsed parse(const Bytes& bytes)
{
    Parsed disk { makeSource(bytes), nullptr };
    disk.volume = ExtParser::parse(*disk.source, 0, "test", nullptr);
    return disk;
}

std::string text(const Parsed& disk, std::string_view path)
{
    const auto content = disk.content(path);
    return { content.begin(), content.end() };
}

/// A folder "mappe" with the file "brev", of which the journal has the states.
ExtImage withFile(ExtImage image = {})
{
    image.putFile(13, fileBlock, "kære du");
    image.putFolder(12, ExtImage::root, folderBlock, { { 13, "brev" } });
    image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" } });
    image.commit({ ExtImage::tableBlockOf(13), folderBlock, ExtImage::bitmapBlock });
    return image;
}

/// The same, and then the file is deleted.
ExtImage withDeletedFile(ExtImage empty = {})
{
    auto image = withFile(std::move(empty));
    image.putFolder(12, ExtImage::root, folderBlock, {});
    image.removeInode(13);
    image.setUsed(fileBlock, 1, false);
    image.commit({ ExtImage::tableBlockOf(13), folderBlock, ExtImage::bitmapBlock });
    return image;
}

} // namespace

TEST(Ext, ChecksumsRunForwardsAndBackwards)
{
    const auto digits = bytesOf("123456789");
    EXPECT_EQ(~ExtChecksums::crc32c(ExtChecksums::start, digits), 0xE3069283);
    EXPECT_EQ(ExtChecksums::rewind32c(ExtChecksums::crc32c(42, digits), digits), 42u);
    EXPECT_EQ(crc16(0, digits), 0xBB3D);
}

TEST(Ext, IsNamedByTheQuickScanAndListedByTheDeepOne)
{
    const auto source = makeSource(withFile().bytes());
    auto result = QuickScanner::run(*source, nullptr);
    EXPECT_TRUE(result.volumes.empty());
    EXPECT_EQ(result.notes.back(), "ext-filsystemer understøttes kun via dyb scanning.");
    QuickScanner::readDeepOnly(*source, result, nullptr);
    ASSERT_EQ(result.volumes.size(), 1u);
    EXPECT_EQ(result.volumes.front()->root->totals(), (Totals { 1, 1, 8, 0 }));
}

TEST(Ext, FollowsExtentsOverNodesHolesAndListsOfBlocks)
{
    ExtImage image;
    const auto put = [&](std::uint32_t number, std::uint64_t node, bool hasLists) {
        image.putInode(number,
            { .size = 3100,
                .extents = { { 0, 120, 1 }, { 2, 122, 1 }, { 3, 125, 1 } },
                .node = node,
                .hasLists = hasLists });
    };
    put(12, 0, false);
    put(13, 130, false);
    put(14, 0, true);
    image.putInode(15, { .size = 2048, .extents = { { 0, 120, 1 }, { 1, 122, 0x8001 } } });
    image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock,
        { { 12, "rod" }, { 13, "knude" }, { 14, "liste" }, { 15, "uskrevet" }, { 12, "link" } });
    image.write(ExtImage::offsetOf(120), patternBytes(6 * ExtImage::blockSize));
    const auto disk = parse(image.bytes());
    const auto& all = disk.source->read(0, 1_MiB, ReadMode::thorough);
    const auto block = [&](std::uint64_t number, std::size_t count) {
        const auto from = all.begin() + static_cast<std::ptrdiff_t>(ExtImage::offsetOf(number));
        return Bytes(from, from + static_cast<std::ptrdiff_t>(count));
    };
    const auto whole = joined({ block(120, 1024), Bytes(1024), block(122, 1024), block(125, 28) });
    for (const auto* path : { "/rod", "/knude", "/liste", "/link" })
        EXPECT_EQ(disk.content(path), whole) << path;
    EXPECT_EQ(disk.content("/uskrevet"), joined({ block(120, 1024), Bytes(1024) }));
    EXPECT_EQ(chance(disk["/knude"]), "God");
}

TEST(Ext, GivesADeletedFileBackByWhatTheJournalRemembers)
{
    const auto image = withDeletedFile();
    const auto disk = parse(image.bytes());
    EXPECT_EQ(text(disk, "/mappe/brev"), "kære du");
    EXPECT_EQ(disk["/mappe/brev"].status, EntryStatus::deleted);
    EXPECT_EQ(chance(disk["/mappe/brev"]), "God");
    EXPECT_EQ(disk["/mappe"].status, EntryStatus::existing);
}

TEST(Ext, FindsADeletedFileByTheNodeThatItsEmptiedTreeStillNames)
{
    ExtImage image;
    const auto content = patternBytes(2 * ExtImage::blockSize + 5);
    image.write(ExtImage::offsetOf(150), content);
    image.putInode(13, { .size = 2053, .extents = { { 0, 150, 3 } }, .node = 130 });
    image.removeInode(13);
    constexpr std::uint64_t firstIndex = 40 + 12; // in the inode
    putLE(image.bytes(), ExtImage::offsetOf(ExtImage::tableBlockOf(13)) + firstIndex + 4, 130, 4);
    image.renewChecksums();
    const auto disk = parse(image.bytes());
    EXPECT_EQ(disk.content("/$Forældreløse filer/inode-13"), content);
    EXPECT_EQ(
        chance(disk["/$Forældreløse filer/inode-13"]), "Ukendt: Filens størrelse kendes ikke");
}

TEST(Ext, TakesWhatBecameFreeForADeletedFileOnlyWhereNothingElseDid)
{
    for (const bool isAlone : { true, false }) {
        ExtImage image;
        image.putFile(13, fileBlock, "kære du");
        image.putFolder(12, ExtImage::root, folderBlock, { { 13, "brev" } });
        if (!isAlone)
            image.putFile(14, 150, "en anden");
        image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" } });
        image.commit({ folderBlock, ExtImage::bitmapBlock }); // and no state of the inodes
        image.removeInode(13);
        image.setUsed(fileBlock, 1, false);
        if (!isAlone) {
            image.removeInode(14);
            image.setUsed(150, 1, false);
        }
        image.commit({ ExtImage::tableBlockOf(13), ExtImage::bitmapBlock });
        const auto disk = parse(image.bytes());
        EXPECT_EQ(text(disk, "/mappe/brev"), isAlone ? "kære du" : "");
        if (isAlone) {
            EXPECT_EQ(chance(disk["/mappe/brev"]),
                "Ukendt: Filens blokke er sluttet af, hvad der blev frit, da den blev slettet; "
                "Filens størrelse kendes ikke");
        }
    }
}

TEST(Ext, TellsFilesThatHadOneInodeApart)
{
    auto image = withDeletedFile();
    image.putFile(13, 140, "den nye");
    image.putInode(13, { .size = 7, .generation = 8, .extents = { { 0, 140, 1 } } });
    image.putFolder(12, ExtImage::root, folderBlock, { { 13, "nyt brev" } });
    image.commit({ ExtImage::tableBlockOf(13), folderBlock });
    const auto disk = parse(image.bytes());
    EXPECT_EQ(text(disk, "/mappe/brev"), "kære du");
    EXPECT_EQ(text(disk, "/mappe/nyt brev"), "den nye");
    EXPECT_EQ(disk["/mappe/nyt brev"].status, EntryStatus::existing);
}

TEST(Ext, NamesAFileByStatesOfItsFolderFromWhenItLived)
{
    constexpr std::uint32_t second = 1'500'000'000; // of the transactions, behind their numbers
    const struct {
        const char* what;
        std::uint32_t created, deleted;
        bool isTheFolders; ///< the state in the journal
        bool isNamed;
    } rows[] = {
        { "nothing says when it began", 0, second + 3, true, true },
        { "it was deleted in the second of the state", second, second + 2, true, true },
        { "it began and ended in that second", second + 2, second + 2, true, false },
        { "it began later, with the number of another", second + 3, second + 3, true, false },
        { "the block was another folder's", 0, second + 3, false, false },
    };
    for (const auto& [what, created, deleted, isTheFolders, isNamed] : rows) {
        ExtImage image;
        image.putFolder(12, ExtImage::root, folderBlock, { { 13, "brev" } });
        image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock, { { 12, "mappe" } });
        if (!isTheFolders)
            image.putFolder(14, ExtImage::root, folderBlock, { { 13, "brev" } });
        image.commit({ ExtImage::bitmapBlock });
        image.commit({ folderBlock });
        image.putInode(14, { .mode = 0, .links = 0 });
        image.putFolder(12, ExtImage::root, folderBlock, {});
        image.putInode(13,
            { .size = 8,
                .links = 0,
                .deleted = deleted,
                .created = created,
                .extents = { { 0, fileBlock, 1 } } });
        image.commit({ ExtImage::tableBlockOf(13), folderBlock });
        const auto disk = parse(image.bytes());
        EXPECT_EQ(disk.volume->root->allFiles().front()->name, isNamed ? "brev" : "inode-13")
            << what;
    }
}

TEST(Ext, TakesNoNumberOfAnotherOrphanForATime)
{
    ExtImage image;
    image.commit({ fileBlock }); // had by a folder once, long before the file
    image.putFile(13, fileBlock, "kære du");
    image.putInode(
        13, { .size = 8, .links = 0, .deleted = 14, .extents = { { 0, fileBlock, 1 } } });
    image.setUsed(fileBlock, 1, false);
    image.commit({ ExtImage::tableBlockOf(13) });
    const auto disk = parse(image.bytes());
    const auto* file = disk.volume->root->allFiles().front();
    EXPECT_EQ(file->name, "inode-13");
    EXPECT_EQ(file->recoverability, Recoverability::good) << file->note.value_or("");
}

TEST(Ext, LowersTheChanceOfWhatOthersHadSince)
{
    const struct {
        const char* name;
        void (*reuse)(ExtImage& image);
        const char* expected;
    } rows[] = {
        { "nothing", [](ExtImage& /*image*/) {}, "God" },
        { "in use now", [](ExtImage& image) { image.setUsed(fileBlock, 1, true); },
            "Ringe: Blokkene er genbrugt af andre filer" },
        { "in use for a while",
            [](ExtImage& image) {
                image.setUsed(fileBlock, 1, true);
                image.commit({ ExtImage::bitmapBlock });
                image.setUsed(fileBlock, 1, false);
                image.commit({ ExtImage::bitmapBlock });
            },
            "Ringe: Blokkene er genbrugt af andre filer" },
        { "another file's that is deleted too",
            [](ExtImage& image) {
                image.putFile(14, fileBlock, "ny");
                image.commit({ ExtImage::tableBlockOf(14) });
                image.removeInode(14);
                image.setUsed(fileBlock, 1, false);
                image.commit({ ExtImage::tableBlockOf(14) });
            },
            "Ringe: Begyndelsen er genbrugt af en anden slettet fil" },
    };
    for (const auto& [name, reuse, expected] : rows) {
        auto image = withDeletedFile();
        reuse(image);
        EXPECT_EQ(chance(parse(image.bytes())["/mappe/brev"]), expected) << name;
    }
}

TEST(Ext, BelievesOrphansThatStillHaveTheirBlocks)
{
    constexpr auto reused = "Ringe: Blokkene er genbrugt af andre filer";
    const struct {
        const char* what;
        std::uint64_t size; ///< of the inode now
        void (*put)(ExtImage& image);
        const char* expected;
    } rows[] = {
        { "the first of the list", 8, [](ExtImage& it) { it.putFirstOrphan(13); }, "God" },
        { "another behind one that is being cut", 8,
            [](ExtImage& it) {
                it.putInode(14, { .deleted = 13 });
                it.putFirstOrphan(14);
            },
            "God" },
        { "in no list", 8, [](ExtImage& /*it*/) {}, reused },
        { "a list that loops before it", 8,
            [](ExtImage& it) {
                it.putInode(14, { .deleted = 14 });
                it.putFirstOrphan(14);
            },
            reused },
        { "taken apart already", 0, [](ExtImage& it) { it.putFirstOrphan(13); }, reused },
        { "its blocks free by now, and written since", 8,
            [](ExtImage& it) {
                it.setUsed(fileBlock, 1, false);
                it.putFirstOrphan(13);
                it.commit({ ExtImage::tableBlockOf(13), folderBlock });
                it.commit({ fileBlock });
            },
            reused },
        { "in the orphan file", 8, [](ExtImage& it) { it.putOrphanFile(15, 150, 13); }, "God" },
        { "in a wrong one", 8,
            [](ExtImage& it) {
                it.putOrphanFile(15, 150, 13);
                it.bytes()[ExtImage::offsetOf(150)] = 14;
            },
            reused },
    };
    for (const auto& [what, size, put, expected] : rows) {
        auto image = withFile();
        image.putFolder(12, ExtImage::root, folderBlock, {});
        image.putInode(13, { .size = size, .links = 0, .extents = { { 0, fileBlock, 1 } } });
        put(image);
        image.commit({ ExtImage::tableBlockOf(13), folderBlock });
        const auto disk = parse(image.bytes());
        EXPECT_EQ(chance(disk["/mappe/brev"]), expected) << what;
        for (const auto* file : disk.volume->root->allFiles())
            EXPECT_NE(file->fsID, 15u) << what << ": the orphan file is the system's own";
    }
}

TEST(Ext, ReadsAVolumeThatWasNotUnmountedThroughItsJournal)
{
    const struct {
        const char* what;
        std::function<void(ExtImage&)> prepare;
    } rows[] = {
        { "checksums of blocks", [](ExtImage&) {} },
        { "checksums of commits", [](ExtImage& it) { it.useOldJournal(); } },
        { "a log that goes round before fast commits", [](ExtImage& it) { it.useFastCommits(8); } },
    };
    for (const auto& [what, prepare] : rows) {
        SCOPED_TRACE(what);
        ExtImage empty;
        prepare(empty);
        const auto before = withFile(empty);
        auto image = withDeletedFile(empty);
        image.demandReplay();
        // Nothing of the second transaction has come to its place.
        for (const auto block : { ExtImage::tableBlockOf(13), folderBlock })
            image.write(ExtImage::offsetOf(block),
                ByteView(before.bytes())
                    .sub(static_cast<std::int64_t>(ExtImage::offsetOf(block)), ExtImage::blockSize)
                    .span());
        EXPECT_EQ(parse(image.bytes())["/mappe/brev"].status, EntryStatus::deleted);

        auto torn = image;
        torn.bytes()[ExtImage::offsetOf(torn.logBlock(5)) + 100] ^= 1; // of the second
        EXPECT_EQ(parse(torn.bytes())["/mappe/brev"].status, EntryStatus::existing);

        auto revoked = image;
        revoked.commit({ 200 }, { folderBlock, ExtImage::tableBlockOf(13) });
        EXPECT_EQ(parse(revoked.bytes())["/mappe/brev"].status, EntryStatus::existing);
    }
}

TEST(Ext, HealsWhatIsLostFromTheJournal)
{
    auto image = withFile();
    for (const auto block : { ExtImage::tableBlockOf(13), folderBlock })
        image.write(ExtImage::offsetOf(block), Bytes(ExtImage::blockSize));
    const auto disk = parse(image.bytes());
    EXPECT_EQ(text(disk, "/mappe/brev"), "kære du");
    EXPECT_EQ(disk["/mappe/brev"].status, EntryStatus::existing);
}

TEST(Ext, TellsWrongChecksumsAndReadsOn)
{
    auto image = withFile();
    image.bytes()[ExtImage::offsetOf(ExtImage::tableBlockOf(13)) + 17] ^= 1; // a date of number 13
    image.bytes()[ExtImage::offsetOf(2) + 12] ^= 1;                          // free blocks
    const auto disk = parse(image.bytes());
    EXPECT_EQ(text(disk, "/mappe/brev"), "kære du");
    const std::vector<std::string> notes { "1 gruppebeskrivelser har en forkert kontrolsum.",
        "1 inoder har en forkert kontrolsum." };
    EXPECT_EQ(disk.volume->notes, notes);
}

TEST(Ext, CallsNoFileGoodThatClaimsMoreThanItsInodeHolds)
{
    constexpr std::uint32_t inlineFlag = 0x10000000;
    auto image = withFile();
    const auto slot = ExtImage::offsetOf(ExtImage::tableBlock) + 12 * ExtImage::inodeSize;
    putLE(image.bytes(), slot + 4, 5000, 4);
    putLE(image.bytes(), slot + 32, inlineFlag, 4);
    image.renewChecksums();
    const auto disk = parse(image.bytes());
    EXPECT_EQ(chance(disk["/mappe/brev"]), "Delvis: Kun dele af filens blokke kendes");
    EXPECT_EQ(disk.content("/mappe/brev").size(), 60u) << "no zeros are invented";
}

TEST(Ext, KeepsFilesWhoseFolderIsLost)
{
    auto image = withFile();
    image.putFolder(ExtImage::root, ExtImage::root, ExtImage::rootBlock, {});
    image.write(ExtImage::offsetOf(folderBlock), Bytes(ExtImage::blockSize));
    image.write(ExtImage::offsetOf(ExtImage::journalBlock), Bytes(ExtImage::blockSize));
    const auto disk = parse(image.bytes());
    EXPECT_EQ(text(disk, "/$Forældreløse filer/inode-13"), "kære du");
    EXPECT_EQ(disk["/$Forældreløse filer/inode-13"].status, EntryStatus::orphaned);
}
