#include "Tests/Images/WindowsPacking.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace NTFSTestVolume;

namespace {

Bytes reparsePoint(std::uint32_t tag)
{
    Bytes value(16);
    putLE(value, 0, tag, 4);
    return Image::attribute(0xC0, value);
}

} // namespace

TEST(NTFSStandIn, IsNoFileOfZeros)
{
    Image image;
    const auto content = patternBytes(2000);
    const auto runs = image.store(content);
    const Image::Data hole { .runs = { { std::nullopt, 4 } }, .size = 4000, .flags = 0x8000 };
    const Image::Data packedHole {
        .runs = { { std::nullopt, 16 } }, .size = 4000, .flags = 1, .compressionUnit = 4
    };
    const Image::Data partly {
        .runs = { runs[0], { std::nullopt, 2 } }, .size = 4000, .flags = 0x8000
    };
    const Image::Data whole { .runs = runs, .size = 2000 };
    const std::string cloud
        = "Ringe: Filens indhold ligger kun i skyen og kan ikke gendannes herfra";
    const std::string elsewhere = "Delvis: Dele af filens indhold ligger et andet sted";
    const struct {
        std::u16string name;
        std::uint32_t tag;
        Image::Data data;
        std::string fate;
        std::size_t size; // of what is recovered
    } cases[] = {
        { u"A sky", 0x9000001A, hole, cloud, 0 },
        { u"B sky af femte slags", 0x9000501A, hole, cloud, 0 },
        { u"C pakket", 0x80000017, hole,
            "Ringe: Windows-komprimeret fil – indholdet ligger i en skjult datastrøm og kan ikke "
            "gendannes direkte",
            0 },
        { u"D delt", 0x80000013, hole,
            "Ringe: Deduplikeret fil – indholdet ligger i filsystemets fælles lager og kan ikke "
            "gendannes direkte",
            0 },
        { u"E hentet", 0x9000001A, whole, "God", 2000 },
        { u"F halvt hentet", 0x9000001A, partly, elsewhere, 4000 },
        { u"G link", 0xA000000C, hole, "God", 4000 },
        { u"H hul i enheder", 0x9000001A, packedHole, cloud, 0 },
        { u"I tom", 0x9000001A, {}, "God", 0 },
    };
    std::uint64_t number = 20;
    for (const auto& row : cases)
        image.put(number++, named(row.name, { Image::data(row.data), reparsePoint(row.tag) }));
    const auto disk = parse(image);
    std::size_t index = 0;
    for (const auto& row : cases) {
        const auto& node = *disk.volume->root->children().at(index++);
        EXPECT_EQ(chance(node), row.fate) << node.name;
        EXPECT_EQ(disk.content(node.path()).size(), row.size) << node.name;
    }
}

TEST(NTFSStandIn, IsKnownByATagOutsideItsRecord)
{
    const Image::Data hole { .runs = { { std::nullopt, 4 } }, .size = 4000, .flags = 0x8000 };
    Image image;
    Bytes tag(16);
    putLE(tag, 0, 0x9000001A, 4);
    image.put(20,
        named(u"i klynger",
            { Image::data(hole),
                Image::nonResident(0xC0, { .runs = image.store(tag), .size = 16 }) }));
    const auto list = Image::listContent({ { 0x80, { 21, 1 } }, { 0xC0, { 22, 1 } } });
    image.put(21, named(u"i anden post", { Image::attribute(0x20, list), Image::data(hole) }));
    image.put(22, { .base = { 21, 1 }, .attributes = { reparsePoint(0x9000001A) } });
    const auto disk = parse(image);
    for (const auto* path : { "/i klynger", "/i anden post" })
        EXPECT_EQ(disk[path].recoverability, Recoverability::poor) << path;
}

TEST(NTFSStandIn, IsUnpackedWhereWindowsKeptTheContentInAStream)
{
    const auto content = joined({ Bytes(50'000, 'a'), patternBytes(40'000), Bytes(9'000, 'z') });
    const Image::Data hole { .runs = { { std::nullopt, 98 } }, .size = 99'000, .flags = 0x8000 };
    const struct {
        std::uint32_t algorithm;
        std::size_t chunk;
        Bytes (*pack)(const Bytes& content);
    } methods[] = { { 0, 4096, WindowsPacking::xpress }, { 1, 32'768, WindowsPacking::lzx },
        { 2, 8192, WindowsPacking::xpress }, { 3, 16'384, WindowsPacking::xpress } };
    Image image({ .clusters = 2000 });
    std::vector<Image::Runs> places;
    for (const auto& [algorithm, chunk, pack] : methods) {
        const auto stream = WindowsPacking::stream(content, chunk, pack);
        places.push_back(image.store(stream));
        image.put(20 + algorithm,
            named(u"fil " + std::u16string(1, static_cast<char16_t>(u'0' + algorithm)),
                { Image::data(hole),
                    Image::withName(Image::data({ .runs = places.back(), .size = stream.size() }),
                        u"WofCompressedData"),
                    Image::attribute(0xC0, WindowsPacking::reparsePoint(algorithm)) }));
    }
    const auto badBytes = [](const Parsed& disk, const std::string& path) {
        return FileReader::stream(disk[path], *disk.source, 4096, std::nullopt,
            [](const FileReader::Piece&) { return true; });
    };
    const auto disk = parse(image);
    for (const std::string path : { "/fil 0", "/fil 1", "/fil 2", "/fil 3" }) {
        EXPECT_EQ(fate(disk[path]), "Eksisterende, God") << path;
        EXPECT_EQ(disk.content(path), content) << path;
        EXPECT_EQ(badBytes(disk, path), 0u) << path;
    }
    // A chunk that is stored as it is, which nothing else can tell to be wrong.
    const auto& bytes = image.bytes();
    const auto at = static_cast<std::uint64_t>(
        std::search(bytes.begin(), bytes.end(), content.begin() + 65'536, content.begin() + 66'048)
        - bytes.begin());
    auto source = image.source();
    source->addSimulatedBadRange({ at + 1024, at + 1025 });
    EXPECT_EQ(badBytes(parse(std::move(source)), "/fil 0"), 4096u);
    // The table of the one, and the first chunk of the next one behind its table.
    image.bytes()[image.offsetOf(*places[0][0].lcn)] = 0xFF;
    image.bytes()[image.offsetOf(*places[2][0].lcn) + 48] = 0xFF;
    const auto damaged = parse(image);
    EXPECT_EQ(badBytes(damaged, "/fil 2"), 8192u);
    EXPECT_EQ(damaged.content("/fil 2"),
        joined({ Bytes(8192), Bytes(content.begin() + 8192, content.end()) }));
    EXPECT_GT(badBytes(damaged, "/fil 0"), 0u);
    EXPECT_EQ(badBytes(damaged, "/fil 1"), 0u);
}
