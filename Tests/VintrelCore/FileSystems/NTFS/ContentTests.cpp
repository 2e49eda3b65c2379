#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

using namespace NTFSTestVolume;

TEST(NTFSContent, IsZerosWhereItWasNeverWritten)
{
    Image image;
    const auto content = patternBytes(4096);
    const auto runs = image.store(content);
    image.put(
        20, named(u"halv", { Image::data({ .runs = runs, .size = 4000, .initSize = 1500 }) }));
    image.put(21, named(u"intet", { Image::data({ .runs = runs, .size = 4000, .initSize = 0 }) }));
    image.put(
        22, named(u"mere", { Image::data({ .runs = runs, .size = 4000, .initSize = 9000 }) }));
    image.put(23,
        named(u"pakket",
            { Image::data({ .runs = runs,
                .size = 4000,
                .initSize = 1500,
                .flags = 1,
                .compressionUnit = 2 }) }));
    // A unit of four clusters stored in one: a chunk that repeats its letter.
    const auto packed = image.store({ 0x03, 0xB0, 0x02, 'a', 0xFC, 0x0F });
    image.put(24,
        named(u"pakket igen",
            { Image::data({ .runs = { packed[0], { std::nullopt, 3 } },
                .size = 4096,
                .flags = 1,
                .compressionUnit = 2 }) }));
    const auto disk = parse(image);
    for (const auto* path : { "/halv", "/pakket" }) {
        EXPECT_EQ(disk.content(path), joined({ firstOf(content, 1500), Bytes(2500) })) << path;
        EXPECT_EQ(fate(disk[path]), "Eksisterende, God") << path;
    }
    EXPECT_EQ(disk["/halv"].data,
        FileData(ExtentList { { image.offsetOf(*runs[0].lcn), 1500 }, { std::nullopt, 2500 } }));
    EXPECT_EQ(disk.content("/intet"), Bytes(4000));
    EXPECT_EQ(disk.content("/mere"), firstOf(content, 4000));
    EXPECT_EQ(disk.content("/pakket igen"), Bytes(4096, 'a'));
}

TEST(NTFSContent, IsCutToWhatTheVolumeCouldHold)
{
    Image image;
    const auto runs = image.store(patternBytes(1024));
    const std::uint64_t all = image.bytes().size();
    const struct {
        std::u16string name;
        Image::Data data;
        std::uint64_t size;
        bool isWhole;
    } cases[] = {
        { u"A", { .runs = runs, .size = std::uint64_t { 1 } << 60 }, all, false },
        { u"C",
            { .runs = { { *runs[0].lcn, (std::uint64_t { 1 } << 40) - 1 } },
                .size = std::uint64_t { 1 } << 50 },
            all, false },
        // A sparse file may be larger than its volume, as long as its runs say so and a system
        // could have made it.
        { u"D",
            { .runs = { runs[0], { std::nullopt, 9999 } }, .size = 10'240'000, .flags = 0x8000 },
            10'240'000, true },
        { u"F",
            { .runs = { { std::nullopt, (std::uint64_t { 1 } << 40) - 1 } },
                .size = std::uint64_t { 1 } << 49,
                .flags = 0x8000 },
            std::uint64_t { 1 } << 44, false },
    };
    std::uint64_t number = 20;
    for (const auto& row : cases)
        image.put(number++, named(row.name, { Image::data(row.data) }));
    const auto disk = parse(image);
    std::size_t index = 0;
    for (const auto& row : cases) {
        const auto& node = *disk.volume->root->children().at(index++);
        EXPECT_EQ(node.size, row.size) << node.name;
        EXPECT_EQ(node.recoverability, row.isWhole ? Recoverability::good : Recoverability::partial)
            << node.name;
    }
    EXPECT_EQ(disk.content("/D").size(), 10'000u * 1024);
}

TEST(NTFSContent, IsPoorWhereNoClusterHasAPlace)
{
    const std::string nowhere = "Ringe: Filens placering kendes ikke";
    const struct {
        std::u16string name;
        Image::Data data;
        std::string fate;
    } cases[] = {
        { u"bagved", { .runs = { { 5000, 4 } }, .size = 4000 }, nowhere },
        { u"bagved med hul", { .runs = { { std::nullopt, 2 }, { 5000, 2 } }, .size = 4000 },
            nowhere },
        { u"halvt bagved", { .runs = { { 300, 2 }, { 5000, 2 } }, .size = 4000 },
            "Delvis: Dele af filens placering mangler" },
        { u"hul", { .runs = { { std::nullopt, 4 } }, .size = 4000, .flags = 0x8000 }, "God" },
        { u"uden stykker", { .runs = {}, .size = 4000 }, nowhere },
    };
    Image image;
    std::uint64_t number = 20;
    for (const auto& row : cases)
        image.put(number++, named(row.name, { Image::data(row.data) }));
    const auto disk = parse(image);
    std::size_t index = 0;
    for (const auto& row : cases) {
        const auto& node = *disk.volume->root->children().at(index++);
        EXPECT_EQ(chance(node), row.fate) << node.name;
        EXPECT_EQ(disk.content(node.path()).empty(), row.fate == nowhere) << node.name;
    }
}
