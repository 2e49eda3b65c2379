// Kinds and faults that no tool makes; what tools make is in CarverSampleTests.

#include "Tests/Images/CarvedFile.h"
#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>

namespace {

using namespace std::string_view_literals;
using Texts = std::vector<std::string>;

constexpr std::size_t place = 1'024;

/// What is found where `file` lies, in front of other content: "ext size", with "~" when estimated,
/// or "-".
std::string carve(const Bytes& file, const std::set<FileCategory>& categories = carvedCategories())
{
    const auto source = Content().upTo(place).add(file).add(Bytes(8_KiB, 0x11)).source();
    Carver carver(*source, categories);
    const auto found = carver.check(source->read(place, 64, ReadMode::fast), place);
    if (!found)
        return "-";
    EXPECT_EQ(found->offset, place);
    return found->ext + (found->exact ? " " : " ~") + std::to_string(found->size);
}

/// Everything that a sweep finds on a disk of these files, each at the next sector: "ext@sector".
Texts sweep(const std::vector<Bytes>& files)
{
    Content disk;
    for (const auto& file : files)
        disk.add(file).upTo((disk.size() + 511) / 512 * 512);
    const auto source = disk.add(Bytes(4_KiB, 0x11)).source();
    Texts found;
    for (const auto& file : DeepScanner(*source, { .findVolumes = false }).run(nullptr).carved)
        found.push_back(
            file.ext + "@" + std::to_string(file.offset / 512) + "+" + std::to_string(file.size));
    return found;
}

const TIFFEntry strip { 0x111, 4, 1, 200 }, stripLength { 0x117, 4, 1, 1'000 };

Bytes photo(std::string_view magic, std::string_view maker, std::vector<TIFFEntry> more = {})
{
    std::vector<TIFFEntry> entries { { 0x10F, 2, static_cast<std::uint32_t>(maker.size()), 1'500 },
        strip, stripLength };
    entries.insert(entries.end(), more.begin(), more.end());
    return tiffFile(magic, entries, { { 1'500, maker } });
}

} // namespace

TEST(Carver, TellsRawPhotosApart)
{
    // The directory entries end far below; the maker's name is what lies last.
    const auto with = [](std::string_view ext, std::string_view maker) {
        return std::string(ext) + " " + std::to_string(1'500 + maker.size());
    };
    const struct {
        std::string_view magic, maker, ext;
    } kinds[] = {
        { "II*\0"sv, "NIKON CORPORATION", "nef" },
        { "MM\0*"sv, "Nikon D1", "nef" },
        { "II*\0"sv, "SONY ", "arw" },
        { "II*\0"sv, "PENTAX K-3", "pef" },
        { "II*\0"sv, "RICOH IMAGING", "pef" },
        { "II*\0"sv, "SAMSUNG", "srw" },
        { "II*\0"sv, "Canon", "cr2" },
        { "II*\0\x10\0\0\0CR"sv, "whoever", "cr2" },
        { "II*\0\x10\0\0\0CR"sv, "Om Digital Solutions", "orf" },
        { "IIRO"sv, "OLYMPUS", "orf" },
        { "IIU\0"sv, "Panasonic", "rw2" },
        { "II*O"sv, "Epson", "tif" },
    };
    for (const auto& [magic, maker, ext] : kinds)
        EXPECT_EQ(carve(photo(magic, maker)), with(ext, maker)) << maker;
    EXPECT_EQ(carve(photo("II*\0"sv, "Leica", { { 0xC612, 1, 4, 1 } })), with("dng", "Leica"));
    EXPECT_EQ(carve(photo("MM*\0"sv, "Nikon")), "-");
    EXPECT_EQ(carve(photo("II*\x10"sv, "Nikon")), "-");

    EXPECT_EQ(carve(Content()
                        .text("FUJIFILMCCD-RAW 0201")
                        .upTo(84)
                        .be(148, 4)
                        .be(900, 4)
                        .zeros(4)
                        .be(9'000, 4)
                        .be(2'000, 4)
                        .be(500, 4)),
        "raf 2500");
    EXPECT_EQ(
        carve(Content().text("FUJIFILMCCD-RAW ").upTo(84).be(148, 4).be(876, 4).zeros(16)), "-")
        << "too small";
}

TEST(Carver, MeasuresTIFFFilesByAllThatIsReferredTo)
{
    const TIFFEntry large { 0x111, 4, 1, 3'000 }, larger { 0x117, 4, 1, 500 };
    EXPECT_EQ(carve(tiffFile("II*\0", { large, larger })), "tif 3500");
    EXPECT_EQ(carve(tiffFile("II*\0", { strip, stripLength }, {}, 2'048, 1'900)), "tif 1930")
        << "directory behind";
    EXPECT_EQ(carve(tiffFile("II*\0", { strip, { 0x117, 4, 1, 800 } }, {}, 2'048, 1'900)), "-")
        << "too little data";
    EXPECT_EQ(carve(tiffFile("II*\0", { { 0x100, 4, 1, 5'000 } })), "-") << "no picture";
    EXPECT_EQ(carve(tiffFile("II*\0",
                  { strip, stripLength, { 0x144, 4, 1, 0x7FFF'0000 }, { 0x145, 4, 1, 0x10000 } })),
        "tif 1200")
        << "an end at 2 GiB is damage";
    // Two tiles whose places and lengths, short numbers, stand inside the entries.
    EXPECT_EQ(carve(tiffFile("II*\0",
                  { { 0x144, 3, 2, 4'000 << 16 | 600 }, { 0x145, 3, 2, 100 << 16 | 700 } })),
        "tif 4100");
    // A sub-directory with a preview; beside it one that is damaged and one that leads back.
    auto nested = tiffFile("II*\0", { strip, stripLength, { 0x14A, 4, 3, 1'800 } });
    putLE(nested, 1'800, 1'900, 4);
    putLE(nested, 1'804, 1'020, 4);
    putLE(nested, 1'808, 16, 4);
    const auto inner
        = tiffFile("II*\0", { { 0x201, 4, 1, 6'000 }, { 0x202, 4, 1, 77 } }, {}, 64, 8);
    std::copy(inner.begin() + 8, inner.end(), nested.begin() + 1'900);
    EXPECT_EQ(carve(nested), "tif 6077");
    // Panasonic: the strips say nothing, a tag of its own says where the raw data lies.
    EXPECT_EQ(
        carve(tiffFile("IIU\0"sv,
            { { 0x111, 4, 1, 0xFFFF'FFFF }, { 0x117, 4, 1, 5'000 }, { 0x118, 4, 1, 1'000 } })),
        "rw2 6000");
    EXPECT_EQ(carve(tiffFile("II*\0", {}, {})), "-");
    EXPECT_EQ(carve(tiffFile("II*\0", { strip, stripLength }, {}, 2'048, 4)), "-");
}

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

TEST(Carver, ReadsArchivesThatNoFreeToolWrites)
{
    const Content rar4 = Content()
                             .text("Rar!\x1A\x07\0"sv)
                             .zeros(2)
                             .be(0x73, 1)
                             .zeros(2)
                             .le(13, 2)
                             .upTo(20)
                             .zeros(2)
                             .be(0x74, 1)
                             .le(0x8000, 2)
                             .le(40, 2)
                             .le(500, 4)
                             .upTo(20 + 540)
                             .zeros(2)
                             .be(0x7B, 1)
                             .le(0x4000, 2)
                             .le(7, 2);
    EXPECT_EQ(carve(rar4), "rar 567");
    const Content rar5 = Content()
                             .text("Rar!\x1A\x07\x01\0"sv)
                             .zeros(4)
                             .be(3, 1)
                             .be(0x01'00'00, 3) // archive header
                             .zeros(4)
                             .be(5, 1)
                             .be(0x02'03'00, 3)
                             .be(0x80'04, 2)
                             .upTo(16 + 10 + 512) // file with data
                             .zeros(4)
                             .be(3, 1)
                             .be(0x05'00'00, 3);
    EXPECT_EQ(carve(rar5), "rar 546");
}

TEST(Carver, TellsZIPFilesApart)
{
    const std::string long64(70'000, 'x');
    const struct {
        std::vector<ZIPMember> members;
        std::string_view ext;
    } kinds[] = {
        { { { "[Content_Types].xml" }, { "word/document.xml" } }, "docx" },
        { { { "xl/workbook.xml" }, { "word/x" } }, "docx" },
        { { { "a", long64 }, { "word/document.xml" }, { "b", long64 } }, "docx" },
        { { { "ppt/slides/1.xml", "x", true } }, "pptx" },
        { { { "META-INF/MANIFEST.MF" } }, "jar" },
        { { { "notes", "word/ xl/ ppt/" }, { "old/word/a" } },
            "zip" }, // letters in a text, or deeper down, say nothing
        { { { "mimetype", "application/epub+zip" }, { "word/x" } }, "epub" },
        { { { "mimetype", "application/vnd.oasis.opendocument.textual" } }, "odt" },
        { { { "mimetype", "application/x-else" }, { "word/x" } }, "zip" },
    };
    for (const auto& [members, ext] : kinds) {
        const auto file = zipFile(members);
        EXPECT_EQ(carve(file), std::string(ext) + " " + std::to_string(file.size()))
            << members[0].name;
        const bool isArchive = ext == "zip" || ext == "jar";
        EXPECT_EQ(carve(file, { FileCategory::archive }) != "-", isArchive);
        EXPECT_EQ(carve(file, { FileCategory::document }) != "-", !isArchive);
    }
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

TEST(Carver, EndsPDFFilesWithTheirLastUpdate)
{
    const std::string first = "%PDF-1.4\n1 0 obj\nendobj\n%%EOF\r\n",
                      update = "2 0 obj\nendobj\nxref\n%%EOF";
    EXPECT_EQ(carve(bytesOf(first)), "pdf ~" + std::to_string(first.size()));
    EXPECT_EQ(carve(bytesOf(first + update + "\n")),
        "pdf ~" + std::to_string(first.size() + update.size() + 1));
    EXPECT_EQ(carve(bytesOf(first + std::string(990, ' ') + "%PDF-1.4 1 0 obj %%EOF")),
        "pdf ~" + std::to_string(first.size()))
        << "what follows is another file";
    EXPECT_EQ(carve(bytesOf("%PDF-1.4\n1 0 obj\n")), "-");

    const std::string head = "%PDF-1.4\n1 0 obj <</Linearized 1/L 300/H[ 1 2]>>\nendobj\n";
    auto linearised = head + std::string(300 - head.size() - 6, ' ') + "%%EOF\n";
    EXPECT_EQ(carve(bytesOf(linearised + "x xref %%EOF")), "pdf 300");
    linearised.replace(294, 5, "     ");
    EXPECT_EQ(carve(bytesOf(linearised)), "pdf ~300")
        << "no file ends there: what follows is not to be hidden";
}

TEST(Carver, TellsWhenAPictureWasTaken)
{
    ::setenv("TZ", "Europe/Copenhagen", 1);
    const auto exif
        = [](std::string_view changed, std::string_view taken, std::string_view magic = "II*\0"sv) {
              auto tiff = tiffFile(magic, { { 0x132, 2, 20, 200 }, { 0x8769, 4, 1, 100 } },
                  { { 200, changed }, { 230, taken } }, 256, 8);
              const auto inner = tiffFile(magic, { { 0x9003, 2, 20, 230 } }, {}, 64, 8);
              std::copy(inner.begin() + 8, inner.begin() + 24, tiff.begin() + 100);
              return tiff;
          };
    const auto seconds = [](const Bytes& tiff) -> std::int64_t {
        const auto date = Formats::exifDate(tiff);
        return date ? std::chrono::floor<std::chrono::seconds>(*date).time_since_epoch().count()
                    : -1;
    };
    constexpr std::string_view summer = "2024:05:17 14:03:22", winter = "2024:01:17 14:03:22";
    EXPECT_EQ(seconds(exif(winter, summer)), 1'715'947'402);
    EXPECT_EQ(seconds(exif(winter, summer, "MM\0*"sv)), 1'715'947'402);
    for (const auto* const bad :
        { "2024:13:17 14:03:22", "2024:02:30 14:03:22", "2024:05:17 24:00:00",
            "    :  :     :  :  ", "0000:00:00 00:00:00", "2024-05-17 14:03:22", "" })
        EXPECT_EQ(seconds(exif(winter, bad)), 1'705'496'602) << bad;
    EXPECT_EQ(seconds(exif("", "")), -1);
    EXPECT_EQ(seconds(Bytes(16, 'I')), -1);

    const auto sourceOf
        = [](const Bytes& file) { return Content().add(file).upTo(4_KiB).source(); };
    const auto jpeg = sourceOf(jpegFile(exifSegment(exif("", summer))));
    EXPECT_EQ(Carver(*jpeg, carvedCategories()).check(jpeg->read(0, 64, ReadMode::fast), 0)->date,
        Formats::exifDate(exif("", summer)));
    const auto movie = [&](const Bytes& header) {
        return sourceOf(Content()
                            .add(isoBox("ftyp", bytesOf("isom0000")))
                            .add(isoBox("moov", isoBox("mvhd", header)))
                            .add(isoBox("mdat")));
    };
    for (const auto& [header, expected] :
        { std::pair<Bytes, std::int64_t> { Content().zeros(4).be(3'798'792'202, 4), 1'715'947'402 },
            { Content().be(1, 1).zeros(3).be(3'798'792'202, 8), 1'715'947'402 },
            { Content().zeros(4).be(2'082'844'800, 4), -1 },
            { Content().be(1, 1).zeros(3).be(UINT64_MAX, 8), -1 } }) {
        const auto source = movie(header);
        const auto found
            = Carver(*source, carvedCategories()).check(source->read(0, 64, ReadMode::fast), 0);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->date
                ? std::chrono::floor<std::chrono::seconds>(*found->date).time_since_epoch().count()
                : -1,
            expected);
    }
    ::unsetenv("TZ");
}

TEST(Carver, IsNotMisledByNeighbours)
{
    const auto zip = zipFile({ { "a.txt", std::string(700, 'a') } });
    const auto png = pngFile();
    const auto named = [](std::string_view ext, int sector, const Bytes& file) {
        return std::string(ext) + "@" + std::to_string(sector) + "+" + std::to_string(file.size());
    };

    const Bytes lostHead
        = Content().text("PK\x03\x04").le(20, 2).le(8, 2).zeros(18).le(5, 2).zeros(2).text("a.txt");
    EXPECT_EQ(sweep({ lostHead, zip }), Texts { named("zip", 1, zip) })
        << "a lost head does not take another's end";
    const auto inner = zipFile({ { "b", "bb" } });
    const auto outer = zipFile({ { "inner.zip", std::string(inner.begin(), inner.end()), true } });
    EXPECT_EQ(sweep({ outer }), Texts { named("zip", 0, outer) })
        << "an archive in an archive is not its end";

    const Bytes endless = Content().text("RIFF").le(0xFFFF'FFFF, 4).text("WAVE");
    EXPECT_EQ(sweep({ endless, png }), (Texts { "wav@0+4294967304", named("png", 1, png) }));

    const Bytes ftyp = isoBox("ftyp", bytesOf("isom0000"));
    const Bytes movie = Content()
                            .add(ftyp)
                            .add(isoBox("moov", Bytes(100)))
                            .add(isoBox("mdat", Bytes(512 - 16 - 108 - 8)));
    ASSERT_EQ(movie.size(), 512u);
    EXPECT_EQ(sweep({ movie, movie }), (Texts { "mp4@0+512", "mp4@1+512" }))
        << "side by side they stay two";
    EXPECT_EQ(sweep({ Content().add(movie).be(100, 4).be(0xC0FF'EE00, 4) }), Texts { "mp4@0+512" });
    EXPECT_EQ(sweep({ Content().add(movie).be(4, 4).text("free") }), Texts { "mp4@0+512" });

    const auto pdf = bytesOf("%PDF-1.4\n1 0 obj\n%%EOF\n");
    EXPECT_EQ(sweep({ pdf, pdf }), (Texts { named("pdf", 0, pdf), named("pdf", 1, pdf) }));
    EXPECT_EQ(sweep({ bytesOf("%PDF-1.4 <</Linearized 1/L 2000>>"), png }),
        (Texts { "pdf@0+2000", named("png", 1, png) }));

    // A thumbnail is part of its photo; what a PDF holds may also be found by itself, since its end
    // is a guess.
    const auto withThumbnail
        = jpegFile(exifSegment(Content().text("II*\0"sv).upTo(990).add(jpegFile())));
    EXPECT_EQ(sweep({ withThumbnail }), Texts { named("jpg", 0, withThumbnail) });
    const Bytes wrapped = Content().text("%PDF-1.4\n").upTo(512).add(png).text("%%EOF");
    EXPECT_EQ(sweep({ wrapped }), (Texts { named("pdf", 0, wrapped), named("png", 1, png) }));
}

TEST(Carver, EndsOggFilesWithTheLastOfTheirStreams)
{
    const auto page = [](int flags, int stream, std::string_view packet) {
        return Content()
            .text("OggS")
            .zeros(1)
            .le(static_cast<unsigned>(flags), 1)
            .zeros(8)
            .le(static_cast<unsigned>(stream), 4)
            .zeros(8)
            .be(1, 1)
            .be(packet.size(), 1)
            .text(packet);
    };
    const Bytes video = Content()
                            .add(page(2, 1, "\x80theora"))
                            .add(page(2, 2, "\x01vorbis"))
                            .add(page(4, 2, "sound"))
                            .add(page(4, 1, "picture"));
    EXPECT_EQ(carve(video), "ogv " + std::to_string(video.size()));
    const Bytes unfinished = Content().add(page(2, 1, "OpusHead")).add(page(0, 1, "more"));
    EXPECT_EQ(carve(unfinished), "-");
}
