// Real files cut into pieces, on images without a file system.

#include "Tests/Images/DiskImage.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Fragments/Anchors.h"
#include "VintrelCore/Fragments/Seams.h"
#include "VintrelCore/Fragments/Space.h"
#include "VintrelCore/Fragments/TableAnchors.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Scanning/FullScan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

constexpr std::size_t sector = 512;

/// A stretch of an image: some sectors of a sample, or of what lies between files.
struct Stretch {
    enum Kind { first, second, text, random, zeros };

    Kind kind;
    std::size_t from = 0; ///< in sectors, of a sample
    std::size_t to = 1000;
};
constexpr auto first = Stretch::first;
constexpr auto second = Stretch::second;
constexpr Stretch text { Stretch::text, 0, 9 };
constexpr Stretch noise { Stretch::random, 0, 6 };
constexpr Stretch zeros { Stretch::zeros, 0, 5 };

Bytes sample(const std::string& name) { return readFile(VINTREL_SAMPLES "/" + name); }

Bytes bytesOf(const Stretch& stretch, const std::vector<Bytes>& files)
{
    const auto count = (stretch.to - stretch.from) * sector;
    switch (stretch.kind) {
    case Stretch::text:
        return Bytes(count, 'e');
    case Stretch::random:
        return patternBytes(count);
    case Stretch::zeros:
        return Bytes(count);
    default:
        break;
    }
    const auto& file = files.at(stretch.kind);
    const auto from = std::min(stretch.from * sector, file.size());
    const auto to = std::min(stretch.to * sector, file.size());
    auto bytes
        = ByteView(file).sub(static_cast<std::int64_t>(from), static_cast<std::int64_t>(to - from));
    Bytes piece(bytes.span().begin(), bytes.span().end());
    piece.resize((piece.size() + sector - 1) / sector * sector);
    return piece;
}

Bytes imageOf(const std::vector<Stretch>& stretches, const std::vector<Bytes>& files)
{
    Bytes image = patternBytes(3 * sector, 9);
    for (const auto& stretch : stretches)
        image = joined({ image, bytesOf(stretch, files) });
    return joined({ image, patternBytes(7 * sector, 8) });
}

struct Listed {
    std::string name {};
    Recoverability chance {};
    Bytes content {};
    std::string note {};
};

/// What a deep scan finds by content.
std::vector<Listed> carvedOf(const Bytes& image, bool fragments)
{
    const auto source = makeSource(image);
    FullScan::Options options { .deep = DeepScanOptions(), .fragments = fragments };
    std::vector<Listed> list;
    for (const auto& volume : FullScan::run(*source, options, nullptr))
        for (const auto* file : volume->root->allFiles())
            list.push_back({ file->name, file->recoverability,
                FileReader::readPrefix(*file, *source, 1_MiB), file->note.value_or("") });
    return list;
}

/// The best chance that is given to this content; none where it was not found.
std::optional<Listed> find(const std::vector<Listed>& list, const Bytes& content)
{
    const auto found = std::ranges::find(list, content, &Listed::content);
    return found == list.end() ? std::nullopt : std::optional(*found);
}

} // namespace

TEST(Fragments, PutPicturesTogetherWhereverTheirPiecesLie)
{
    const struct {
        std::string what;
        std::vector<Stretch> stretches;
        std::string note; ///< empty: the picture does not come back
    } rows[] = {
        { "text between", { { first, 0, 31 }, text, { first, 31 } }, "Samlet af 2 stykker" },
        { "out of order", { { first, 17 }, noise, { first, 0, 17 } }, "Samlet af 2 stykker" },
        { "three pieces", { { first, 0, 14 }, noise, { first, 14, 33 }, zeros, { first, 33 } },
            "Samlet af 3 stykker; overgangen er usikker" },
        { "both in pieces",
            { { first, 0, 24 }, { second, 0, 22 }, noise, { first, 24 }, { second, 22 } },
            "Samlet af 2 stykker" },
        { "a piece missing", { { first, 0, 14 }, noise, { first, 46 } }, "" },
    };
    const std::vector files { sample("jpeg-large.jpg"), sample("jpeg-large-restart.jpg") };
    for (const auto& [what, stretches, note] : rows) {
        const auto list = carvedOf(imageOf(stretches, files), true);
        const auto found = find(list, files[0]);
        ASSERT_EQ(found.has_value(), !note.empty()) << what;
        if (found) {
            EXPECT_EQ(found->note, note) << what;
            EXPECT_EQ(found->chance == Recoverability::good, note.size() == 19) << what;
        }
        for (const auto& other : list)
            EXPECT_TRUE(other.chance != Recoverability::good || other.content == files[0]
                || other.content == files[1])
                << what << ": " << other.note;
    }
}

TEST(Fragments, KnowTheirPlaceByAStructureNearTheirEnd)
{
    const struct {
        std::string name;
        std::size_t cut; ///< in sectors: behind all that is needed of the head
    } rows[] = { { "docx-plain.docx", 1 }, { "pdf-updated.pdf", 1 }, { "mp4-moov-last.mp4", 1 },
        { "avi-mjpeg.avi", 12 }, { "mkv-plain.mkv", 4 }, { "ole-letter.doc", 3 },
        { "ole-word.doc", 2 } };
    for (const auto& [name, cut] : rows) {
        const std::vector<Bytes> files { sample(name) };
        const auto image = imageOf({ { first, 0, cut }, noise, { first, cut } }, files);
        const auto found = find(carvedOf(image, true), files[0]);
        ASSERT_TRUE(found) << name;
        EXPECT_TRUE(found->note.starts_with("Samlet af 2 stykker")) << name << found->note;
        EXPECT_TRUE(found->name.ends_with(name.substr(name.rfind('.')))) << found->name;

        const auto source = makeSource(image);
        Fragments::BlockCache cache(*source);
        const Fragments::Space space({}, { { 0, source->size() }, sector });
        const auto extension = name.substr(name.rfind('.') + 1);
        const std::vector<std::string_view> kinds { extension };
        const auto anchors = Fragments::findAnchors(cache, space, kinds, nullptr);
        const auto head = 3 * sector;
        const auto shifts
            = Fragments::shiftsFor(extension, { { head, source->size() } }, anchors, cache);
        EXPECT_TRUE(std::ranges::count(shifts, head + noise.to * sector)) << name;
    }
}

TEST(Fragments, KnowATableOfSectorsByItsNumbers)
{
    constexpr std::size_t entries = sector / 4;
    constexpr std::uint32_t own = 30; // the table's own sector, in the head's list
    Bytes head(sector);
    putLE(head, 30, 9, 2);
    putLE(head, 44, 1, 4);
    putLE(head, 76, own, 4);
    Bytes table(sector, 0xFF);
    for (std::size_t i = 0; i < 40; ++i)
        putLE(table, 4 * i, i + 1, 4);
    putLE(table, 4 * 20, 0xFFFF'FFFE, 4);
    putLE(table, std::size_t { 4 } * own, 0xFFFF'FFFD, 4);
    EXPECT_TRUE(Fragments::mayBeSectorTable(table));
    const auto source = makeSource(joined({ patternBytes(5 * sector), table }));
    Fragments::BlockCache cache(*source);
    EXPECT_EQ(
        Fragments::shiftBySectorTable(cache, 5 * sector, head), 5 * sector - (own + 1) * sector);
    putLE(head, 76, own + 1, 4); // another file's
    EXPECT_EQ(Fragments::shiftBySectorTable(cache, 5 * sector, head), std::nullopt);
    for (const auto& other : { patternBytes(sector), Bytes(sector), Bytes(sector, 0xFF) })
        EXPECT_FALSE(Fragments::mayBeSectorTable(other));
    putLE(table, 4 * (entries - 1), 0x0200'0000, 4);
    EXPECT_FALSE(Fragments::mayBeSectorTable(table)); // no file has so many sectors
}

TEST(Fragments, FollowAFilmByTheTableThatStandsBehindIt)
{
    const std::vector<Bytes> files { sample("mp4-long.mp4") };
    const auto image
        = imageOf({ { first, 0, 5 }, noise, { first, 5, 10 }, text, { first, 10 } }, files);
    const auto found = find(carvedOf(image, true), files[0]);
    ASSERT_TRUE(found);
    EXPECT_TRUE(found->note.starts_with("Samlet af 3 stykker")) << found->note;
}

TEST(Fragments, PreferJoinsWhereOthersBeginAndEnd)
{
    // Two films, as far as anyone can see: their middles are noise.
    const auto source = makeSource(patternBytes(40 * sector, 3));
    Fragments::BlockCache cache(*source);
    Fragments::Space space({}, { { 0, source->size() }, sector });
    space.hold({ 10 * sector, 12 * sector });
    const std::unordered_set<std::uint64_t> beginnings { 20 * sector };
    Fragments::Seams seams(cache, space, beginnings);
    const auto likelihood = [&](std::size_t end, std::size_t start) {
        return seams.likelihood({ { 4 * sector, end * sector }, { start * sector, 39 * sector } });
    };
    EXPECT_GT(likelihood(10, 14), likelihood(9, 13));  // another's content behind the piece
    EXPECT_GT(likelihood(8, 12), likelihood(9, 13));   // and in front of the next one
    EXPECT_GT(likelihood(20, 24), likelihood(21, 25)); // another's beginning
    EXPECT_LT(likelihood(30, 34), likelihood(20, 24));
    seams.take({ { 30 * sector, 32 * sector } });
    EXPECT_GT(likelihood(30, 34), likelihood(29, 33));
    EXPECT_TRUE(seams.isTaken({ { 31 * sector, 33 * sector } }));
    EXPECT_FALSE(seams.isTaken({ { 32 * sector, 33 * sector } }));
}

TEST(Fragments, LeaveWhatIsWholeAsItIs)
{
    const std::vector files { sample("jpeg-large.jpg"), sample("png-palette.png") };
    const auto image = imageOf({ { first }, text, { second }, noise, { first, 0, 9 } }, files);
    const auto without = carvedOf(image, false);
    auto with = carvedOf(image, true);
    std::erase_if(
        with, [](const Listed& file) { return file.note.starts_with("Kun begyndelsen"); });
    ASSERT_EQ(with.size(), without.size());
    for (std::size_t i = 0; i < with.size(); ++i) {
        EXPECT_EQ(with[i].content, without[i].content);
        EXPECT_EQ(with[i].note, without[i].note);
        EXPECT_EQ(with[i].chance, without[i].chance);
    }
}

TEST(Fragments, AreOnlyPutTogetherWhenAskedFor)
{
    const std::vector<Bytes> files { sample("jpeg-large.jpg") };
    const auto image = imageOf({ { first, 0, 31 }, noise, { first, 31 } }, files);
    EXPECT_FALSE(find(carvedOf(image, false), files[0]));
}

TEST(Fragments, ShowOfLostFilesWhatIsThere)
{
    const auto cut = [](const std::string& name, std::size_t size) {
        auto bytes = sample(name);
        bytes.resize(size);
        return bytes;
    };
    auto recording = cut("mkv-plain.mkv", 2827);
    std::fill_n(recording.begin() + 45, 7, std::uint8_t { 0xFF }); // a length that is not known
    const auto thumbnail = sample("jpeg-baseline.jpg");
    const auto exifSize = static_cast<std::uint8_t>((thumbnail.size() + 8) % 256);
    const Bytes exif { 0xFF, 0xD8, 0xFF, 0xE1, 1, exifSize, 'E', 'x', 'i', 'f', 0, 0 };
    auto rest = cut("jpeg-large.jpg", sector);
    rest.erase(rest.begin(), rest.begin() + 2);
    const std::string broken = "Kun begyndelsen er fundet; resten af filen mangler";
    const std::string unclosed = "Optagelsen blev ikke afsluttet, eller dens slutning mangler";
    const struct {
        std::string what;
        Bytes bytes; ///< on the image
        Bytes shown;
        std::string note;
    } rows[] = {
        { "photo", cut("jpeg-large.jpg", 20 * sector), cut("jpeg-large.jpg", 20 * sector), broken },
        { "picture in chunks", cut("png-animated.png", 400), cut("png-animated.png", 368), broken },
        { "film", cut("mp4-moov-last.mp4", 836), cut("mp4-moov-last.mp4", 836), unclosed },
        { "recording", recording, recording, unclosed },
        { "sound", cut("ogg-vorbis.ogg", 2620), cut("ogg-vorbis.ogg", 2620), unclosed },
        { "thumbnail", joined({ exif, thumbnail, rest }), thumbnail,
            "Miniaturebillede fra et foto, der er gået tabt" },
    };
    const std::vector<Bytes> files { sample("png-palette.png") };
    for (const auto& [what, bytes, shown, note] : rows) {
        auto padded = bytes;
        padded.resize((bytes.size() + sector - 1) / sector * sector);
        const auto image = joined({ patternBytes(3 * sector), padded, imageOf({ text }, {}),
            bytesOf({ first }, files), Bytes(4 * sector) });
        const auto found = find(carvedOf(image, true), shown);
        ASSERT_TRUE(found) << what;
        EXPECT_TRUE(found->note.starts_with(note)) << what << found->note;
        EXPECT_EQ(found->chance, Recoverability::unknown) << what;
        EXPECT_FALSE(find(carvedOf(image, false), shown)) << what;
    }
}

TEST(Fragments, TellFreeUnitsFromThoseThatFilesHold)
{
    constexpr Fragments::Grid grid { { 1024, 20'480 }, 4096 };
    Fragments::Space space({ grid }, { { 0, 32'768 }, 512 });
    space.hold({ 5120, 5121 });
    space.holdSoftly({ 13'312, 17'408 });
    EXPECT_EQ(space.freeUnitFrom(0, grid, false), 1024);
    EXPECT_EQ(space.freeUnitFrom(1025, grid, false), 9216);
    EXPECT_EQ(space.freeUnitFrom(9217, grid, false), 17'408);
    EXPECT_EQ(space.freeUnitFrom(9217, grid, true), 13'312);
    EXPECT_EQ(space.freeUnitFrom(17'409, grid, false), std::nullopt);
    EXPECT_EQ(space.freeUnitBefore(17'408, grid, false), 9216);
    EXPECT_EQ(space.freeUnitBefore(9216, grid, false), 1024);
    EXPECT_EQ(space.freeUnitBefore(1024, grid, false), std::nullopt);
    EXPECT_EQ(space.endOfRun(9216, grid, false), 13'312);
    EXPECT_EQ(space.endOfRun(9216, grid, true), 20'480);
    EXPECT_EQ(space.gridAt(20'480).unit, 512);
}
