#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/HFSPlus/Catalog.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <gtest/gtest.h>

namespace {

using Record = HFSPlusImage::Record;

constexpr std::uint64_t sector = 512;
const Record rootRecord { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true };

Parsed parse(const HFSPlusImage& image)
{
    auto source = image.source();
    auto volume = HFSPlusParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

/// Three leaves of the tree, and one that it gave up.
HFSPlusImage treeOfThree()
{
    HFSPlusImage image;
    const std::vector<Record> folder {
        { .parent = 2, .name = u"mappe", .id = 20, .isFolder = true }
    };
    image.setLeaf(2, { rootRecord, folder[0] });
    image.setLeaf(3,
        { { .parent = 20, .name = u"a", .id = 21 }, { .parent = 20, .name = u"b", .id = 22 },
            { .parent = 20, .name = u"d", .id = 25 } },
        folder);
    image.setLeaf(4, { { .parent = 20, .name = u"c", .id = 23 } });
    image.setLeaf(5, { { .parent = 20, .name = u"opgivet", .id = 24 } });
    image.chain({ 2, 3, 4 });
    image.stateLeaves({ 2, 3, 4 });
    return image;
}

/// The paths of what exists and, behind a bar, of what was deleted.
std::string listing(const Parsed& disk)
{
    std::string existing;
    std::string deleted;
    if (disk.volume)
        disk.volume->root->forEachDescendant([&](const FileNode& node, std::size_t) {
            (node.status == EntryStatus::deleted ? deleted : existing) += node.path() + " ";
        });
    return existing + "| " + deleted;
}

} // namespace

TEST(HFSPlusDamage, ACutChainOfLeavesCostsOnlyWhatLayInTheLostSector)
{
    const auto node = [](std::uint32_t number) { return HFSPlusImage::nodeOffset(number); };
    const std::string all = "/mappe /mappe/a /mappe/b /mappe/c /mappe/d | ";
    const std::string cut = "Katalogets kæde af blade er afbrudt. ";
    const std::string byIndex = cut + "Hvilke filer der eksisterer, er afgjort af dets indeks.";
    const std::string byMap
        = cut + "Hvilke filer der eksisterer, er afgjort af dets kort over brugte knuder.";
    const std::string byNothing = cut + "Slettede filer kan ikke skelnes fra eksisterende.";
    const auto missing = [](int count) {
        return "; Kataloget mangler " + std::to_string(count)
            + " af sine poster. Filer kan mangle.";
    };
    const auto put = [](std::uint64_t at, const Bytes& bytes) {
        return [=](HFSPlusImage& image) { image.write(at, bytes); };
    };
    const auto erase = [](const std::vector<std::uint64_t>& sectors) {
        return [=](HFSPlusImage& image) {
            for (const auto at : sectors)
                image.write(at, Bytes(sector));
        };
    };
    const struct {
        const char* what;
        std::function<void(HFSPlusImage&)> damage;
        std::string expected, notes;
    } rows[] = {
        { "nothing", [](HFSPlusImage&) {}, all + "/mappe/opgivet ", "" },
        { "first sector of a leaf, with three of its records", erase({ node(3) }),
            "/mappe /mappe/c /mappe/d | /mappe/opgivet ", byIndex + missing(3) },
        { "its last sector, with the offsets", erase({ node(3) + sector }),
            "/mappe /mappe/a /mappe/b /mappe/c | /mappe/opgivet ", byIndex + missing(1) },
        { "all of it", erase({ node(3), node(3) + sector }), "/mappe /mappe/c | /mappe/opgivet ",
            byIndex + missing(4) },
        { "a link outside", put(node(3), { 0, 0, 1, 0 }), all + "/mappe/opgivet ", byIndex },
        { "a link that ends too soon", put(node(3), { 0, 0, 0, 0 }), all + "/mappe/opgivet ",
            byIndex },
        { "no first leaf", put(node(0) + 24, { 0, 0, 0, 0 }), all + "/mappe/opgivet ", byIndex },
        { "a kind that is no leaf's", put(node(3) + 8, { 1 }), all + "/mappe/opgivet ", byIndex },
        { "a link, and the index",
            [&](HFSPlusImage& image) {
                erase({ node(1), node(1) + sector })(image);
                image.write(node(2), Bytes(4));
            },
            all + "/mappe/opgivet ", byMap },
        { "a link, the index and the map",
            [&](HFSPlusImage& image) {
                erase({ node(0) + sector, node(1), node(1) + sector })(image);
                image.write(node(2), Bytes(4));
            },
            "/mappe /mappe/a /mappe/b /mappe/c /mappe/d /mappe/opgivet | ", byNothing },
        { "a link and the index, and a map that denies a leaf of the chain",
            [&](HFSPlusImage& image) {
                erase({ node(1), node(1) + sector })(image);
                image.write(node(2), Bytes(4));
                put(node(0) + 248, { 0xC0 })(image);
            },
            "/mappe /mappe/a /mappe/b /mappe/c /mappe/d /mappe/opgivet | ", byNothing },
        { "the folder's record, which its thread record stands in for",
            [&](HFSPlusImage& image) {
                put(node(2) + 10, { 0, 1 })(image);
            },
            all + "/mappe/opgivet ", byIndex + missing(1) },
    };
    for (const auto& [what, damage, expected, notes] : rows) {
        auto image = treeOfThree();
        damage(image);
        const auto disk = parse(image);
        EXPECT_EQ(listing(disk), expected) << what;
        std::string found;
        for (const auto& note : disk.volume->notes)
            found += (found.empty() ? "" : "; ") + note;
        EXPECT_EQ(found, notes) << what;
    }
}

TEST(HFSPlusDamage, TheEndOfTheSourceInsideTheCatalogDeletesNothing)
{
    auto image = treeOfThree();
    image.bytes().resize(HFSPlusImage::nodeOffset(3) + 100);
    EXPECT_EQ(listing(parse(image)), "/mappe /mappe/a | ");
    image = treeOfThree();
    image.chain({ 2, 4, 3 });
    image.stateLeaves({ 2, 4, 3 });
    image.bytes().resize(HFSPlusImage::nodeOffset(4));
    EXPECT_EQ(listing(parse(image)), "/mappe /mappe/a /mappe/b /mappe/d | ");
}

TEST(HFSPlusDamage, NothingIsCalledDeletedWhereTheCatalogIsNotReadToItsEnd)
{
    const auto image = treeOfThree();
    const auto source = image.source();
    const auto header = HFSPlusVolumeHeader::decode(ByteView(image.bytes()).sub(1024, 512));
    const HFSPlusForks forks(*source, 0, *header);
    const auto whole = HFSPlusCatalog::load(forks, *header, {});
    EXPECT_FALSE(whole->isCapped());
    EXPECT_FALSE(whole->find(24)->isLive());
    const auto part
        = HFSPlusCatalog::load(forks, *header, { .maxBytes = 6 * HFSPlusImage::nodeSize });
    EXPECT_TRUE(part->isCapped());
    EXPECT_TRUE(part->find(24)->isLive());
    EXPECT_EQ(part->find(23)->use, HFSPlusBTree::Use::live);
}

TEST(HFSPlusLinks, HangFoldersAtTheirFirstLinkAndTakeDatesFromFiles)
{
    HFSPlusImage image;
    const std::u16string privateName(u"\0\0\0\0HFS+ Private Data", 21);
    image.setLeaf(2,
        { rootRecord,
            { .parent = 2, .name = u".HFS+ Private Directory Data\r", .id = 16, .isFolder = true },
            { .parent = 16, .name = u"dir_50", .id = 50, .isFolder = true },
            { .parent = 50, .name = u"fil", .id = 51 } });
    image.setLeaf(3,
        { { .parent = 2, .name = u"første", .id = 60, .linkTo = 50, .isFolderLink = true },
            { .parent = 2, .name = u"anden", .id = 61, .linkTo = 50, .isFolderLink = true } });
    image.setLeaf(4,
        { { .parent = 2, .name = privateName, .id = 17, .isFolder = true },
            { .parent = 17, .name = u"iNode7", .id = 70, .modified = 0xE1000000 },
            { .parent = 2, .name = u"link", .id = 71, .modified = 0, .linkTo = 7 } });
    image.setLeaf(5, { { .parent = 2, .name = u"løst", .id = 73, .linkTo = 8 } });
    image.chain({ 2, 3, 4, 5 });
    image.setLeaf(6, // what the tree has given up, but not the link to it
        { { .parent = 17, .name = u"iNode8", .id = 72, .size = 512, .runs = { { 150, 1 } } } });
    image.setAllocated(150);
    const auto disk = parse(image);
    EXPECT_EQ(disk.volume->notes,
        std::vector<std::string> {
            "2 hårde links til mapper; hver mappe vises ved det første af sine links." });
    EXPECT_EQ(disk["/første"].fsID, 50u);
    EXPECT_EQ(disk["/første/fil"].fsID, 51u);
    EXPECT_EQ(chance(disk["/anden"]),
        "God: Hårdt link til en mappe, som vises ved det første af sine links");
    EXPECT_EQ(disk["/link"].modified, TimeConversion::fromHFS(0xE1000000));
    EXPECT_EQ(chance(disk["/$Forældreløse filer/iNode7"]), "God: Hårdt link til filen: /link");
    EXPECT_EQ(chance(disk["/løst"]), "Ringe: Blokkene er genbrugt af andre filer");
}

TEST(HFSPlusAllocation, CountsTheBlocksOfADeletedFileThatAreInUse)
{
    const struct {
        std::uint32_t start, count, used;
        const char* expected;
    } rows[] = { { 1000, 50, 999, "God" }, { 1000, 50, 1000, "Ringe" },
        { 1000, 50, 1049, "Delvis" }, { 1000, 50, 1050, "God" }, { 505, 1200, 1024, "Delvis" },
        { 512, 512, 511, "God" }, { 512, 512, 1023, "Delvis" }, { 512, 512, 1024, "God" },
        { 7000, 1000, 7999, "Delvis" } };
    for (const auto& [start, count, used, expected] : rows) {
        HFSPlusImage image(false, 8000);
        image.setLeaf(2, { rootRecord });
        image.setLeaf(3,
            { { .parent = 2,
                .name = u"x",
                .id = 50,
                .size = count * sector,
                .runs = { { start, count } } } });
        image.chain({ 2 });
        image.setAllocated(used);
        EXPECT_EQ(label(parse(image)["/x"].recoverability), expected) << start << " " << used;
    }
}
