#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/FileSystems/NTFS/Reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using namespace NTFSTestVolume;

TEST(NTFSAllocationMap, TellsTheChancesOfDeletedFiles)
{
    Image image;
    const auto content = patternBytes(5000); // five clusters
    const auto stored = [&](std::initializer_list<std::uint64_t> reused, std::uint16_t flags = 0) {
        const auto runs = image.store(content, false);
        for (const auto cluster : reused)
            image.markUsed(*runs[0].lcn + cluster, 1);
        return Image::data({ .runs = runs, .size = 5000, .flags = flags });
    };
    const auto shortOf = [&](std::uint64_t size) {
        auto runs = image.store(firstOf(content, 2048), false);
        return Image::data({ .runs = runs, .size = size });
    };
    const std::string reused = "Klyngerne er genbrugt af andre filer";
    const std::string missing = "Dele af filens placering mangler";
    const std::string encrypted = "EFS-krypteret – kan ikke dekrypteres";
    const std::string damaged = "MFT-posten er delvist beskadiget";
    struct Case {
        std::u16string name;
        std::vector<Bytes> attributes;
        std::string fate;
        bool isDamaged = false;
    };
    const std::vector<Case> cases = {
        { u"hjemme", { Image::data(bytesOf("x")) }, "God" },
        { u"fri", { stored({}) }, "God" },
        { u"to af fem", { stored({ 1, 4 }) },
            "Delvis: Nogle af klyngerne er genbrugt af andre filer" },
        { u"tre af fem", { stored({ 1, 2, 4 }) }, "Ringe: " + reused },
        { u"den første", { stored({ 0 }) }, "Ringe: " + reused },
        { u"uden data", {}, "Ringe: Dataattributten mangler" },
        { u"efs", { stored({}, 0x4000) }, "Ringe: " + encrypted },
        { u"efs genbrugt", { stored({ 0 }, 0x4000) }, "Ringe: " + reused + "; " + encrypted },
        { u"kort", { shortOf(5000) }, "Delvis: " + missing },
        { u"beskadiget", { stored({}) }, "Delvis: " + damaged, true },
        { u"beskadiget genbrugt", { stored({ 0 }) }, "Ringe: " + reused + "; " + damaged, true },
    };
    std::uint64_t number = 20;
    for (const auto& row : cases) {
        image.put(number, named(row.name, row.attributes, false));
        if (row.isDamaged)
            image.bytes()[image.recordOffset(number, 510)] ^= 1;
        ++number;
    }
    const auto disk = parse(image);
    number = 20;
    for (const auto& row : cases) {
        const auto& nodes = disk.volume->root->children();
        const auto node
            = std::ranges::find(nodes, number++, [](const auto& child) { return child->fsID; });
        ASSERT_NE(node, nodes.end()) << row.fate;
        EXPECT_EQ(fate(**node), "Slettet, " + row.fate) << (*node)->name;
    }
    EXPECT_EQ(disk.content("/fri"), content);
    EXPECT_EQ(disk.content("/kort"), joined({ firstOf(content, 2048), Bytes(2952) }));

    // Files that exist are not measured by the bitmap, and doubts about them are told all the same.
    image.put(20, named(u"hel", { stored({ 0, 1, 2, 3, 4 }) }));
    image.put(21, named(u"halv", { shortOf(5000) }));
    const auto again = parse(image);
    EXPECT_EQ(fate(again["/hel"]), "Eksisterende, God");
    EXPECT_EQ(fate(again["/halv"]), "Eksisterende, Delvis: " + missing);
}

TEST(NTFSAllocationMap, LeavesUnknownWhatCouldNotBeRead)
{
    Image image({ .clusterSize = 512, .clusters = 9000 }); // the bitmap has three sectors
    const auto content = patternBytes(1500);
    const auto put = [&](std::uint64_t number, std::u16string_view name, std::uint64_t lcn) {
        image.put(
            number, named(name, { Image::data({ .runs = { { lcn, 3 } }, .size = 1500 }) }, false));
    };
    put(20, u"a", 4000);
    put(21, u"b", 4095); // its bits lie in two sectors
    put(22, u"c", 8192);
    put(23, u"d", 5000);
    image.markUsed(5000, 1);
    const auto fates = [&](const std::function<void(DiskSource&)>& damage) {
        auto source = image.source();
        damage(*source);
        const auto disk = parse(std::move(source));
        std::string fates;
        for (const auto* path : { "/a", "/b", "/c", "/d" })
            fates += chance(disk[path]) + ". ";
        for (const auto& note : disk.volume->notes)
            fates += note;
        return fates;
    };
    const std::uint64_t bitmap = image.offsetOf(image.bitmapLCN());
    const std::string unknown = "Ukendt: Det vides ikke, om pladsen er genbrugt. ";
    const std::string reused = "Ringe: Klyngerne er genbrugt af andre filer. ";
    const std::string nobodyKnows = "Det vides ikke, om slettede filers plads er genbrugt.";
    EXPECT_EQ(fates([](DiskSource&) {}), "God. God. God. " + reused);
    EXPECT_EQ(fates([&](DiskSource& source) {
        source.addSimulatedBadRange({ bitmap + 512, bitmap + 513 });
    }),
        "God. " + unknown + "God. " + unknown + "Dele af $Bitmap kunne ikke læses. " + nobodyKnows);
    EXPECT_EQ(fates([&](DiskSource& source) {
        source.addSimulatedBadRange({ bitmap, bitmap + 1536 });
    }),
        unknown + unknown + unknown + unknown + "$Bitmap kunne ikke læses. " + nobodyKnows);
    EXPECT_EQ(fates([&](DiskSource& source) {
        source.addSimulatedBadRange({ image.recordOffset(6), image.recordOffset(7) });
    }),
        unknown + unknown + unknown + unknown + "$Bitmap blev ikke fundet. " + nobodyKnows);
}

TEST(NTFSAllocationMap, EndsWithTheSource)
{
    // The second cluster of the bitmap lies behind the end.
    Image image({ .clusterSize = 512, .clusters = 9000 });
    image.put(6, { .attributes = { Image::data({ .runs = { { 4999, 2 } }, .size = 1024 }) } });
    for (const std::uint64_t lcn : { 4095u, 4096u })
        image.put(lcn - 4070,
            named(lcn < 4096 ? u"a" : u"b",
                { Image::data({ .runs = { { lcn, 1 } }, .size = 500 }) }, false));
    auto bytes = image.bytes();
    bytes.resize(5000 * 512);
    const auto disk = parse(makeSource(bytes));
    EXPECT_EQ(chance(disk["/a"]), "God");
    EXPECT_EQ(chance(disk["/b"]), "Ukendt: Det vides ikke, om pladsen er genbrugt");
}

TEST(NTFSAllocationMap, TellsWhatItsVolumeHasInUse)
{
    // A volume of 9000 clusters of 512 bytes, whose bitmap has three sectors. What it has for
    // itself ends at cluster 83.
    const Image::Options options { .clusterSize = 512, .clusters = 9000, .mft = { { 16, 64 } } };
    using Clusters = std::vector<std::pair<std::uint64_t, std::uint64_t>>; // from, to
    const struct {
        const char* what;
        Clusters used;
        std::size_t size = 9000; // of the source, in clusters
        std::function<void(DiskSource&, std::uint64_t)> damage = [](DiskSource&, std::uint64_t) {};
        std::optional<Clusters> ranges;
    } cases[] = {
        { .what = "the volume's own", .used = {}, .ranges = { { { 0, 83 } } } },
        { .what = "runs that begin and end anywhere in words and blocks",
            .used = { { 83, 84 }, { 127, 129 }, { 4000, 4200 }, { 8191, 8192 }, { 8999, 9000 } },
            .ranges
            = { { { 0, 84 }, { 127, 129 }, { 4000, 4200 }, { 8191, 8192 }, { 8999, 9000 } } } },
        { .what = "more than the source has",
            .used = { { 4000, 6000 } },
            .size = 5000,
            .ranges = { { { 0, 83 }, { 4000, 5000 } } } },
        { .what = "a part that cannot be read",
            .used = {},
            .damage =
                [](DiskSource& source, std::uint64_t bitmap) {
                    source.addSimulatedBadRange({ bitmap + 512, bitmap + 513 });
                },
            .ranges = {} },
    };
    for (const auto& [what, used, size, damage, expected] : cases) {
        SCOPED_TRACE(what);
        Image image(options);
        for (const auto& [from, to] : used)
            image.markUsed(from, to - from);
        const auto source = makeSource({ image.bytes().begin(),
            image.bytes().begin() + static_cast<std::ptrdiff_t>(size * 512) });
        damage(*source, image.offsetOf(image.bitmapLCN()));
        const auto volume = NTFSParser::parse(*source, 0, "prøve", nullptr);
        ASSERT_TRUE(volume);
        std::vector<ByteRange> ranges { { 1, 2 } };
        EXPECT_EQ(ntfsReader.addUsedRanges(*source, *volume, ranges), expected.has_value());
        std::vector<ByteRange> wanted { { 1, 2 } };
        for (const auto& [from, to] : expected.value_or(Clusters {}))
            wanted.push_back({ from * 512, to * 512 });
        EXPECT_EQ(ranges, wanted);
    }
}

TEST(NTFSAllocationMap, AsksForEveryClusterOfALargeFile)
{
    // More than a million clusters that are free, and one that is not.
    Image image({ .clusterSize = 512, .recordSize = 4096, .clusters = 9000 });
    Image::Runs runs(140, { 800, 8000 });
    runs.push_back({ 8900, 1 });
    image.markUsed(8900, 1);
    const std::uint64_t size = (std::uint64_t { 140 } * 8000 + 1) * 512;
    image.put(20,
        named(u"stor", { Image::data({ .runs = runs, .size = size, .flags = 0x8000 }) }, false));
    EXPECT_EQ(
        chance(parse(image)["/stor"]), "Delvis: Nogle af klyngerne er genbrugt af andre filer");
}
