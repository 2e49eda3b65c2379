// What other programs write than those that made the samples: the same kinds, put together in other
// ways.

#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

Bytes sample(std::string_view name) { return readFile(VINTREL_SAMPLES "/" + std::string(name)); }

Bytes withNumber(Bytes file, std::size_t at, std::uint64_t value)
{
    putLE(file, at, value, 4);
    return file;
}

std::size_t placeOf(const Bytes& file, std::string_view text, std::size_t from = 0)
{
    const auto begin = file.begin() + static_cast<std::ptrdiff_t>(from);
    return static_cast<std::size_t>(
        std::search(begin, file.end(), text.begin(), text.end()) - file.begin());
}

Bytes inserted(Bytes file, std::size_t at, const Bytes& bytes)
{
    file.insert(file.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin(), bytes.end());
    return file;
}

Bytes replaced(Bytes file, std::string_view text, std::string_view by)
{
    for (auto at = placeOf(file, text); at < file.size(); at = placeOf(file, text, at + 1))
        std::copy(by.begin(), by.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
    return file;
}

/// An archive with both records of ZIP64, although the fields of the others would do.
Bytes zip64Beside()
{
    const auto file = sample("zip-piped.zip");
    const auto end = file.size() - 22;
    Content records;
    records.text("PK\x06\x06").le(44, 8).upTo(56).text("PK\x06\x07").le(0, 4).le(end, 8).le(1, 4);
    return inserted(file, end, records);
}

/// A body of triangles whose normals, which point upwards, have this length as a number of 32 bits.
Bytes triangles(std::string_view title, std::uint32_t normal)
{
    Content file;
    file.text(title).upTo(80).le(6, 4);
    for (int i = 0; i < 6; ++i)
        file.zeros(8)
            .le(normal, 4)
            .zeros(12)
            .le(0x4000'0000, 4)
            .zeros(12)
            .le(0x4000'0000, 4)
            .zeros(6);
    return file;
}

Bytes id3() { return Content().text("ID3\4").zeros(5).be(50, 1).upTo(60); }

/// An image of a CD with something behind the volume, and the two headers of a partition table.
Bytes withPartitions(Bytes file)
{
    const auto copy = (file.size() + 4'096) / 512;
    file.resize((copy + 1) * 512);
    const auto put = [&](std::size_t here, std::size_t other) {
        const auto header = bytesOf("EFI PART");
        std::copy(
            header.begin(), header.end(), file.begin() + static_cast<std::ptrdiff_t>(here * 512));
        putLE(file, here * 512 + 24, here, 8);
        putLE(file, here * 512 + 32, other, 8);
    };
    put(1, copy);
    put(copy, 1);
    return file;
}

} // namespace

TEST(OtherMakers, ArePutTogetherInOtherWays)
{
    const auto emf = sample("emf-plain.emf");
    const auto wmf = sample("wmf-plain.wmf");
    const auto jp2 = sample("jp2-boxes.jp2");
    const struct {
        const char* what;
        const char* ext;
        Bytes file;
    } files[] = {
        { "a sum of all the sound behind it", "wv",
            Content().add(sample("wv-plain.wv")).text("wvpk").le(24, 4).le(0x410, 2).zeros(22) },
        { "a tag behind frames", "flac",
            Content().add(sample("flac-plain.flac")).text("TAG").zeros(125) },
        { "a tag behind frames", "aac",
            Content().add(sample("aac-plain.aac")).text("TAG").zeros(125) },
        { "one record not counted", "emf", withNumber(emf, 52, ByteView(emf).u32le(52) - 1) },
        { "a header counted too often", "wmf", withNumber(wmf, 28, ByteView(wmf).u32le(28) + 11) },
        { "a box of an index", "jp2",
            inserted(jp2, placeOf(jp2, "jp2c") - 4, Content().be(8, 4).text("iptr")) },
        { "both forms of end records", "zip", zip64Beside() },
        { "a name in other letters", "3mf",
            replaced(sample("3mf-plain.3mf"), "3dmodel.model", "3DModel.model") },
        { "zeros that fill sectors", "mpg",
            Content()
                .add(inserted(sample("mpg-first.mpg"), 2'048,
                    Content().zeros(20).be(0x1BA, 4).be(0x2100'0500'01A1'9A75, 8)))
                .zeros(20) },
        { "a tag in front", "aac", Content().add(id3()).add(sample("aac-plain.aac")) },
        { "a tag in front", "flac", Content().add(id3()).add(sample("flac-plain.flac")) },
        { "twice as many bits as it says", "dpx",
            Content()
                .add(withNumber(sample("dpx-plain.dpx"), 800, 0x1000'0032))
                .upTo(8'384 + 192) },
        { "a sum of signed bytes", "tar",
            replaced(replaced(sample("tar-plain.tar"), "a.txt", "\xD8.txt"), "010517", "010306") },
        { "a partition table", "iso", withPartitions(sample("iso-plain.iso")) },
        { "long names", "iso",
            Content()
                .add(inserted(
                    sample("iso-plain.iso"), 17 * 2'048, Content().text("\2CD001\2").upTo(2'048)))
                .upTo(sample("iso-plain.iso").size()) },
        { "a title that is a line", "stl", triangles("Model\n", 0x3F80'0000) },
        { "normals that nobody shortened", "stl", triangles("Model", 0x42C8'0000) },
    };
    for (const auto& [what, ext, file] : files)
        EXPECT_EQ(carve(file), std::string(ext) + " " + std::to_string(file.size())) << what;
}
