// What HFS+ keeps beside the content of files, and compressed files, which are kept there.

#include "Tests/Images/HFSPlusImage.h"
#include "Tests/Images/PackedContent.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/Foundation/Compression/Compression.h"

#include <gtest/gtest.h>

namespace {

using Record = HFSPlusImage::Record;
using Attribute = HFSPlusImage::Attribute;

Parsed parse(const HFSPlusImage& image)
{
    auto source = image.source();
    auto volume = HFSPlusParser::parse(*source, 0, "prøve", nullptr);
    return { std::move(source), std::move(volume) };
}

const Record rootRecord { .parent = 1, .name = u"DISK", .id = 2, .isFolder = true };
const std::string notUnpacked
    = "Ringe: HFS-komprimeret fil – indholdet ligger i en skjult ressource og kan ikke gendannes "
      "direkte";

Bytes attributeBytes(std::uint32_t type, std::uint64_t size, const Bytes& packed = {})
{
    const auto text = PackedContent::header(type, size, packed);
    return { text.begin(), text.end() };
}

} // namespace

TEST(HFSPlusAttributes, BelongToTheirFilesAndFolders)
{
    HFSPlusImage image;
    image.write(HFSPlusImage::offsetOf(100), bytesOf("stor"));
    image.write(HFSPlusImage::offsetOf(102), bytesOf("mere"));
    image.write(HFSPlusImage::offsetOf(104), bytesOf("gren"));
    image.write(HFSPlusImage::offsetOf(106), bytesOf("rest"));
    image.addOverflow(18, 1, { { 110, 9 } }); // of the data fork
    image.addOverflow(18, 1, { { 106, 1 } }, true);
    image.setLeaf(2,
        { rootRecord,
            { .parent = 2,
                .name = u"fil",
                .id = 18,
                .size = 1,
                .runs = { { 90, 1 } },
                .resourceSize = 1024,
                .resourceRuns = { { 104, 1 } },
                .finderInfo = "TEXTttxt" },
            { .parent = 2, .name = u"mappe", .id = 19, .isFolder = true },
            { .parent = 2,
                .name = u"uden",
                .id = 20,
                .finderInfo = std::string(16, '\0') + std::string("datedate\0\0\0\0tæll", 16) } });
    image.chain({ 2 });
    image.setLeaf(3, { { .parent = 2, .name = u"slettet", .id = 30 } });
    image.setAttributes(
        { { 18, u"com.apple.system.Security", bytesOf("acl") }, { 18, u"kort", bytesOf("abc") },
            { .fileID = 18, .name = u"lang", .size = 1025, .runs = { { 100, 1 } } },
            { .fileID = 18, .name = u"lang", .runs = { { 102, 1 } }, .startBlock = 1 },
            { .fileID = 18, .name = u"lang", .runs = { { 102, 1 } }, .startBlock = 9 },
            { 19, u"farve", bytesOf("blå") } });
    image.setAttributes({ { 18, u"kort", bytesOf("ældre") }, { 18, u"fjernet", bytesOf("x") },
                            { 30, u"gammel", bytesOf("y") } },
        2);
    const auto disk = parse(image);
    EXPECT_TRUE(disk.volume->notes.empty());
    EXPECT_EQ(attachments(disk, "/fil"),
        "gren=grenrest;com.apple.FinderInfo=TEXTttxt;kort=abc;lang=stormere0;");
    EXPECT_EQ(chance(disk["/fil"]), "God: Ressourcegren på 1024 bytes");
    EXPECT_EQ(attachments(disk, "/mappe"), "farve=bl__;");
    EXPECT_EQ(attachments(disk, "/uden"), "");
    EXPECT_EQ(attachments(disk, "/slettet"), "gammel=y;");
}

TEST(HFSPlusAttributes, NotesWhatIsLostOfThem)
{
    HFSPlusImage image;
    image.setLeaf(2, { rootRecord, { .parent = 2, .name = u"fil", .id = 18, .ownerFlags = 0x20 } });
    image.chain({ 2 });
    image.setAttributes({ { 18, u"com.apple.decmpfs", attributeBytes(9, 2, bytesOf("\xCChi")) } });
    EXPECT_EQ(unpackedContent(parse(image), "/fil"), bytesOf("hi"));
    const struct {
        std::uint64_t at;
        std::size_t length;
        const char* note;
    } rows[] = {
        { HFSPlusImage::attributesOffset(0), 512, "Attributfilen kunne ikke læses. " },
        { HFSPlusImage::attributesOffset(1), 1024, "Attributfilen mangler 1 af sine poster. " },
    };
    for (const auto& [at, length, note] : rows) {
        auto damaged = image;
        damaged.write(at, Bytes(length));
        const auto disk = parse(damaged);
        EXPECT_EQ(disk.volume->notes,
            std::vector<std::string> { note
                + std::string("Komprimerede filers indhold og udvidede attributter kan mangle.") });
        EXPECT_EQ(chance(disk["/fil"]), notUnpacked);
    }
}

TEST(HFSPlusAttributes, CompressedFilesCanBeUnpacked)
{
    using namespace PackedContent;
    const auto small = patternBytes(300);
    const auto fork = plainFork({ marked(0xFF, small) });
    const struct {
        const char* what;
        std::uint32_t type;
        Bytes attribute, fork;
        std::optional<Recoverability> chance = Recoverability::good; ///< none: not unpacked
        bool isDeleted = false;
    } rows[] = {
        { "in the attribute", 9, marked(0xCC, small), {} },
        { "zlib that gained nothing", 3, marked(0x0F, small), {},
            Compression::hasZlib() ? std::optional(Recoverability::good) : std::nullopt },
        { "in the fork", 10, {}, fork },
        { "deleted, in the attribute", 9, marked(0xCC, small), {}, Recoverability::good, true },
        { "deleted, and the fork is overwritten", 10, {}, fork, Recoverability::poor, true },
        { "an unknown method", 14, {}, fork, std::nullopt },
        { "no fork", 10, {}, {}, std::nullopt },
    };
    for (const auto& [what, type, attribute, rowFork, expected, isDeleted] : rows) {
        SCOPED_TRACE(what);
        HFSPlusImage image;
        image.write(HFSPlusImage::offsetOf(100), rowFork);
        image.setAllocated(100);
        image.setLeaf(2, { rootRecord });
        image.chain({ 2 });
        image.setLeaf(isDeleted ? 3 : 2,
            { rootRecord,
                { .parent = 2,
                    .name = u"fil",
                    .id = 18,
                    .resourceSize = rowFork.size(),
                    .resourceRuns = { { 100, 1 } },
                    .ownerFlags = 0x20 } });
        image.setAttributes(
            { { 18, u"com.apple.decmpfs", attributeBytes(type, small.size(), attribute) } });
        const auto disk = parse(image);
        const auto& node = disk["/fil"];
        // Without being asked for it, the file is listed as what it is on the disk.
        EXPECT_EQ(chance(node), notUnpacked);
        EXPECT_EQ(node.size, 0u);
        const auto* packed = packedContentOf(node);
        ASSERT_EQ(packed != nullptr, expected.has_value());
        if (packed != nullptr) {
            EXPECT_EQ(packed->recoverability, *expected);
            EXPECT_EQ(packed->size, small.size());
            EXPECT_EQ(unpackedContent(disk, "/fil"), small);
        }
    }
}
