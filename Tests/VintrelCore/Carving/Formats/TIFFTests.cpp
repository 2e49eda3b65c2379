#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

using namespace std::string_view_literals;

namespace {

const TIFFEntry strip { 0x111, 4, 1, 200 }, stripLength { 0x117, 4, 1, 1'000 };

Bytes photo(std::string_view magic, std::string_view maker, std::vector<TIFFEntry> more = {})
{
    std::vector<TIFFEntry> entries { { 0x10F, 2, static_cast<std::uint32_t>(maker.size()), 1'500 },
        strip, stripLength };
    entries.insert(entries.end(), more.begin(), more.end());
    return tiffFile(magic, entries, { { 1'500, maker } });
}

} // namespace

TEST(TIFF, TellsRawPhotosApart)
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
}

TEST(TIFF, IsMeasuredByAllThatIsReferredTo)
{
    const TIFFEntry large { 0x111, 4, 1, 3'000 }, larger { 0x117, 4, 1, 500 };
    // A sub-directory with a preview; beside it a damaged one, and one that refers back.
    auto nested = tiffFile("II*\0", { strip, stripLength, { 0x14A, 4, 3, 1'800 } });
    putLE(nested, 1'800, 1'900, 4);
    putLE(nested, 1'804, 1'020, 4);
    putLE(nested, 1'808, 16, 4);
    const auto inner
        = tiffFile("II*\0", { { 0x201, 4, 1, 6'000 }, { 0x202, 4, 1, 77 } }, {}, 64, 8);
    std::copy(inner.begin() + 8, inner.end(), nested.begin() + 1'900);
    const struct {
        const char* what;
        Bytes file;
        std::string found;
    } cases[] = {
        { "a strip", tiffFile("II*\0", { large, larger }), "tif 3500" },
        { "the directory behind its strip",
            tiffFile("II*\0", { strip, stripLength }, {}, 2'048, 1'900), "tif 1930" },
        { "two tiles whose places and lengths, short numbers, stand inside the entries",
            tiffFile(
                "II*\0", { { 0x144, 3, 2, 4'000 << 16 | 600 }, { 0x145, 3, 2, 100 << 16 | 700 } }),
            "tif 4100" },
        { "a preview in a sub-directory", nested, "tif 6077" },
        { "Panasonic: the strips say nothing, a tag of its own says where the raw data lies",
            tiffFile("IIU\0"sv,
                { { 0x111, 4, 1, 0xFFFF'FFFF }, { 0x117, 4, 1, 5'000 }, { 0x118, 4, 1, 1'000 } }),
            "rw2 6000" },
        { "an end at 2 GiB is damage",
            tiffFile("II*\0",
                { strip, stripLength, { 0x144, 4, 1, 0x7FFF'0000 }, { 0x145, 4, 1, 0x10000 } }),
            "tif 1200" },
    };
    for (const auto& [what, file, found] : cases)
        EXPECT_EQ(carve(file), found) << what;
}

TEST(TIFF, NeedsAPictureAndADirectory)
{
    const std::pair<const char*, Bytes> files[] = {
        { "too little data", tiffFile("II*\0", { strip, { 0x117, 4, 1, 800 } }, {}, 2'048, 1'900) },
        { "no picture", tiffFile("II*\0", { { 0x100, 4, 1, 5'000 } }) },
        { "no entry", tiffFile("II*\0", {}, {}) },
        { "a directory in the header", tiffFile("II*\0", { strip, stripLength }, {}, 2'048, 4) },
    };
    for (const auto& [what, file] : files)
        EXPECT_EQ(carve(file), "-") << what;
}
