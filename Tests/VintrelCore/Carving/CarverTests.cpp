// Kinds and faults that no tool makes; what tools make is in CarverSampleTests.

#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace std::string_view_literals;

namespace {

/// As `sweep` tells a file in a sector.
std::string found(std::string_view ext, int sector, const Bytes& file)
{
    return std::string(ext) + "@" + std::to_string(sector) + "+" + std::to_string(file.size());
}

} // namespace

TEST(Carver, RefusesWhatDoesNotHoldTogether)
{
    const auto png = pngFile();
    const auto jpeg = jpegFile();
    EXPECT_EQ(carve(png), "png " + std::to_string(png.size()));
    EXPECT_EQ(carve(jpeg), "jpg " + std::to_string(jpeg.size()));

    const std::pair<std::string, Bytes> files[] = {
        { "a chunk type with a digit",
            Content().add(Bytes(png.begin(), png.end() - 12)).add(pngChunk("IEN0", 0)) },
        { "a chunk beyond half a gigabyte",
            Content().add(Bytes(png.begin(), png.end() - 12)).be(0x2000'0000, 4).text("IDAT") },
        { "no scan", Content().be(0xFFD8'FFC0, 4).be(8, 2).text("frame.").be(0xFFD9, 2).upTo(64) },
        { "no frame", Content().be(0xFFD8'FFDA, 4).be(4, 2).text("sc").be(0xFFD9, 2).upTo(64) },
        { "a marker below C0", Content().be(0xFFD8'FFBF, 4).upTo(64) },
        { "another beginning", Content().add(Bytes(jpeg.begin(), jpeg.end() - 2)).add(jpeg) },
        { "a bitmap with something reserved",
            Content().text("BM").le(500, 4).le(1, 4).le(54, 4).le(40, 4).le(9, 4).upTo(500) },
        { "a bitmap without a width",
            Content().text("BM").le(500, 4).zeros(4).le(54, 4).le(40, 4).zeros(4).upTo(500) },
        { "a stale page count",
            Content()
                .text("SQLite format 3\0"sv)
                .be(512, 2)
                .upTo(24)
                .be(7, 4)
                .be(2, 4)
                .upTo(92)
                .be(6, 4)
                .upTo(1'024) },
        { "an endless archive",
            Content().text("7z\xBC\xAF\x27\x1C").upTo(12).le(1'000'000, 8).le(100, 8).upTo(100) },
        { "a live stream",
            Content()
                .be(0x1A45'DFA3, 4)
                .be(0x84, 1)
                .text("webm")
                .be(0x1853'8067, 4)
                .be(0xFF, 1)
                .upTo(100) },
        { "text with a zero", Content().text("{\\rtf1 a").zeros(1).text("}").upTo(64) },
        { "two frames",
            Content()
                .text("ID3\x04\0\0\0\0\0\0"sv)
                .be(0xFFFB'9000, 4)
                .upTo(10 + 417)
                .be(0xFFFB'9000, 4)
                .upTo(10 + 834) },
        { "a page in the middle", Content().text("OggS").zeros(2).upTo(64) },
        { "no data",
            Content().add(isoBox("ftyp", bytesOf("isom0000"))).add(isoBox("moov")).upTo(64) },
        { "a tiny first box",
            Content().be(8, 4).text("ftypisom").add(isoBox("moov")).add(isoBox("mdat")).upTo(64) },
        { "blocks of no kind",
            Content().text("Rar!\x1A\x07\0"sv).zeros(2).be(0x71, 1).zeros(2).le(7, 2).upTo(64) },
    };
    for (const auto& [what, file] : files)
        EXPECT_EQ(carve(file), "-") << what;

    const auto source = makeSource(png);
    EXPECT_EQ(Carver(*source, carvedCategories()).check(ByteView(png).sub(0, 31), 0), std::nullopt)
        << "31 bytes";
}

TEST(Carver, KeepsToTheWantedCategories)
{
    const Bytes wave = Content().text("RIFF").le(92, 4).text("WAVE").upTo(100);
    const Bytes picture = Content().text("RIFF").le(92, 4).text("WEBP").upTo(100);
    const Bytes database
        = Content().text("SQLite format 3\0"sv).be(512, 2).upTo(28).be(2, 4).upTo(1'024);
    const struct {
        const Bytes& file;
        FileCategory category;
        std::string_view found;
    } cases[] = {
        { wave, FileCategory::audio, "wav 100" },
        { wave, FileCategory::image, "-" },
        { picture, FileCategory::image, "webp 100" },
        { database, FileCategory::document, "sqlite 1024" },
        { database, FileCategory::other, "-" },
    };
    for (const auto& [file, category, found] : cases)
        EXPECT_EQ(carve(file, { category }), found);
}

TEST(Carver, LeavesToEachArchiveItsOwnEnd)
{
    const auto zip = zipFile({ { "a.txt", std::string(700, 'a') } });
    const Bytes lostHead
        = Content().text("PK\x03\x04").le(20, 2).le(8, 2).zeros(18).le(5, 2).zeros(2).text("a.txt");
    EXPECT_EQ(sweep({ lostHead, zip }), Texts { found("zip", 1, zip) });
    const auto inner = zipFile({ { "b", "bb" } });
    const auto outer = zipFile({ { "inner.zip", std::string(inner.begin(), inner.end()), true } });
    EXPECT_EQ(sweep({ outer }), Texts { found("zip", 0, outer) })
        << "an archive in an archive is not its end";
}

TEST(Carver, FindsWhatLiesInsideAFileOfAnUnbelievableLength)
{
    const auto png = pngFile();
    const Bytes endless = Content().text("RIFF").le(0xFFFF'FFFF, 4).text("WAVE");
    EXPECT_EQ(sweep({ endless, png }), (Texts { "wav@0~512!", found("png", 1, png) }));
    EXPECT_EQ(sweep({ bytesOf("%PDF-1.4 <</Linearized 1/L 2000>>"), png }),
        (Texts { "pdf@0~2000!", found("png", 1, png) }));
}

TEST(Carver, EndsAMovieWhereItsBoxesEnd)
{
    const Bytes movie = Content()
                            .add(isoBox("ftyp", bytesOf("isom0000")))
                            .add(isoBox("moov", Bytes(100)))
                            .add(isoBox("mdat", Bytes(512 - 16 - 108 - 8)));
    ASSERT_EQ(movie.size(), 512u);
    EXPECT_EQ(sweep({ movie, movie }), (Texts { "mp4@0+512", "mp4@1+512" }));
    EXPECT_EQ(sweep({ Content().add(movie).be(100, 4).be(0xC0FF'EE00, 4) }), Texts { "mp4@0+512" });
    EXPECT_EQ(sweep({ Content().add(movie).be(4, 4).text("free") }), Texts { "mp4@0+512" });
    EXPECT_EQ(
        sweep({ Content().add(movie).be(24, 4).text("-1.4").upTo(600) }), Texts { "mp4@0+512" })
        << "no box of a film";
}

TEST(Carver, PassesOverTheInsideOfAFileWhoseLengthIsSure)
{
    const auto photograph
        = jpegFile(exifSegment(Content().text("II*\0"sv).upTo(990).add(jpegFile())));
    EXPECT_EQ(sweep({ photograph }), Texts { found("jpg", 0, photograph) });
    const auto png = pngFile();
    const Bytes pdf = Content().text("%PDF-1.4\n").upTo(512).add(png).text("%%EOF");
    EXPECT_EQ(sweep({ pdf }),
        (Texts { "pdf@0~" + std::to_string(pdf.size()) + "!", found("png", 1, png) }))
        << "the end of a PDF file is a guess";
}

// Every sector begins a picture whose first chunk ends where the same endless chain of chunks
// begins: one chunk in each piece that the source reads at once, and more of them than it keeps.
TEST(Carver, SpendsBoundedWorkOnBeginningsWithoutAnEnd)
{
    constexpr std::uint64_t beginnings = 256, hop = 128_KiB, size = 32_MiB;
    Bytes bytes(size);
    const auto putChunk = [&](std::uint64_t at, std::string_view type, std::uint64_t next) {
        constexpr std::uint64_t around = 12; // length, type and checksum
        putBE(bytes, at, next - at - around, 4);
        std::ranges::copy(type, bytes.begin() + static_cast<std::ptrdiff_t>(at + 4));
    };
    for (std::uint64_t at = 0; at < beginnings * 512; at += 512) {
        std::ranges::copy("\x89PNG\r\n\x1A\n"sv, bytes.begin() + static_cast<std::ptrdiff_t>(at));
        putChunk(at + 8, "IHDR", 1_MiB);
    }
    for (std::uint64_t at = 1_MiB; at < size; at += hop)
        putChunk(at, "IDAT", at + hop);
    constexpr std::uint64_t place = 256_KiB; // of a picture with a row's end to look at in each row
    const Bytes bitmap = Content()
                             .text("BM")
                             .le(420'054, 4)
                             .zeros(4)
                             .le(54, 4)
                             .le(40, 4)
                             .le(9, 4)
                             .le(15'000, 4)
                             .le(1, 2)
                             .le(24, 2);
    std::ranges::copy(bitmap, bytes.begin() + static_cast<std::ptrdiff_t>(place));
    const auto source = makeSource(bytes);
    Carver carver(*source, carvedCategories());
    for (std::uint64_t at = 0; at < beginnings * 512; at += 512)
        EXPECT_EQ(
            carver.check(ByteView(bytes).sub(static_cast<std::int64_t>(at), 64), at), std::nullopt);
    EXPECT_GT(source->bytesRead(), 100_MiB) << "beginnings are followed";
    EXPECT_LT(source->bytesRead(), 3 * 1024_MiB) << "but not all of them to the end of the disk";
    EXPECT_TRUE(carver.hasRunOut());
    const auto picture = carver.check(ByteView(bytes).sub(place, 64), place);
    ASSERT_TRUE(picture) << "what tells its length is found, though nothing is left to prove it";
    EXPECT_EQ(picture->size, 420'054u);
    EXPECT_FALSE(picture->isProved);
}
