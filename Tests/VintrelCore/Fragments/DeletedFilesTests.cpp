// Deleted files of a FAT volume of which only the first cluster and the size are left.

#include "Tests/Images/FATImage.h"
#include "Tests/Support/ParsedVolume.h"
#include "VintrelCore/Scanning/FullScan.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t cluster = 512;

Bytes part(const Bytes& bytes, std::size_t from, std::size_t to)
{
    const auto view = ByteView(bytes).sub(
        static_cast<std::int64_t>(from), static_cast<std::int64_t>(to - from));
    return Bytes(view.span().begin(), view.span().end());
}

Parsed scanned(
    const FATImage& image, bool fragments, Fragments::Look look = Fragments::Look::contents)
{
    auto source = image.source();
    const FullScan::Options options { .deep = {}, .fragments = fragments, .look = look };
    auto volumes = FullScan::run(*source, options, nullptr);
    return { std::move(source), std::move(volumes.at(0)) };
}

/// A volume with a deleted file that lies around a living one of four clusters, and behind that a
/// deleted one of which nothing but the entry is left: its clusters are the first one's.
FATImage volumeWith(const std::string& name, const Bytes& content)
{
    FATImage image({});
    const auto first = 20 * cluster;
    image.addFile(FATImage::root, { .name = name }, part(content, 0, first));
    image.addFile(FATImage::root, { .name = "KEPT    BIN" }, patternBytes(4 * cluster, 7));
    image.addFile(FATImage::root, { .name = "LATER   BIN" }, part(content, first, content.size()));
    putLE(image.bytes(), image.entryOffset(FATImage::root, 0) + 28, content.size(), 4);
    image.remove(FATImage::root, name);
    image.remove(FATImage::root, "LATER   BIN");
    return image;
}

} // namespace

TEST(DeletedFragments, LieRoundWhatIsInUse)
{
    const auto photo = readFile(VINTREL_SAMPLES "/jpeg-large.jpg");
    const auto other = patternBytes(photo.size(), 3);
    const struct {
        std::string name, path;
        const Bytes& content;
        std::string chance, chanceOfOther;
    } rows[] = {
        { "PHOTO   JPG", "/_HOTO.JPG", photo, "God: Samlet af 2 stykker",
            "Ringe: Dele af filen kan være overskrevet af en anden slettet fil; "
            "Begyndelsen er genbrugt af en anden slettet fil" },
        { "THING   BIN", "/_HING.BIN", other, "Delvis: Filen lå i flere stykker; de er gættet",
            "God: Dele af filen kan være overskrevet af en anden slettet fil" },
    };
    for (const auto& [name, path, content, expected, ofOther] : rows) {
        const auto image = volumeWith(name, content);
        const auto with = scanned(image, true);
        EXPECT_EQ(with.content(path), content) << name;
        EXPECT_EQ(chance(with[path]), expected);
        EXPECT_EQ(chance(with["/_ATER.BIN"]), ofOther);
        const auto without = scanned(image, false);
        EXPECT_NE(without.content(path), content) << name;
    }
}

TEST(DeletedFragments, GoOnInTheHolesThatOtherDeletedFilesLeft)
{
    const auto photo = readFile(VINTREL_SAMPLES "/jpeg-large.jpg");
    constexpr std::size_t pieces = 6;
    const auto step = photo.size() / cluster / pieces * cluster;
    FATImage image({});
    for (std::size_t i = 0; i < pieces; ++i) {
        const auto end = i + 1 < pieces ? (i + 1) * step : photo.size();
        const auto number = std::to_string(i);
        image.addFile(FATImage::root,
            { .name = i == 0 ? "PHOTO   JPG" : "HOLE" + number + "   BIN" },
            part(photo, i * step, end));
        image.addFile(FATImage::root, { .name = "FULL" + number + "   BIN" },
            patternBytes(5 * cluster, static_cast<unsigned>(i)));
    }
    putLE(image.bytes(), image.entryOffset(FATImage::root, 0) + 28, photo.size(), 4);
    for (std::size_t i = 0; i < pieces; ++i) {
        const auto number = std::to_string(i);
        image.remove(FATImage::root, i == 0 ? "PHOTO   JPG" : "HOLE" + number + "   BIN");
        image.remove(FATImage::root, "FULL" + number + "   BIN");
    }
    const auto parsed = scanned(image, true);
    EXPECT_EQ(parsed.content("/_HOTO.JPG"), photo);
    EXPECT_EQ(chance(parsed["/_HOTO.JPG"]), "Ukendt: Samlet af 6 stykker; overgangen er usikker");
    // It is not certain whose content lies there.
    EXPECT_TRUE(chance(parsed["/_OLE3.BIN"]).starts_with("Delvis")) << chance(parsed["/_OLE3.BIN"]);
    EXPECT_EQ(chance(parsed["/_ULL3.BIN"]).substr(0, 3), "God");
}

TEST(DeletedFragments, AreOnlyJudgedByTheirHeadsWhereNoMoreIsLookedAt)
{
    const auto photo = readFile(VINTREL_SAMPLES "/jpeg-large.jpg");
    auto image = volumeWith("PHOTO   JPG", photo);
    image.addFile(FATImage::root, { .name = "OTHER   JPG" }, patternBytes(9 * cluster, 5));
    image.remove(FATImage::root, "OTHER   JPG");
    const auto parsed = scanned(image, true, Fragments::Look::heads);
    EXPECT_EQ(chance(parsed["/_THER.JPG"]), "Ringe: Indholdet passer ikke til filtypen");
    EXPECT_EQ(chance(parsed["/_HOTO.JPG"]), "Delvis: Filen lå i flere stykker; de er gættet");
}

TEST(DeletedFragments, AreNotThereWhereTheirHeadIsAnother)
{
    FATImage image({});
    image.addFile(FATImage::root, { .name = "PHOTO   JPG" }, patternBytes(9 * cluster, 5));
    image.remove(FATImage::root, "PHOTO   JPG");
    EXPECT_EQ(
        chance(scanned(image, true)["/_HOTO.JPG"]), "Ringe: Indholdet passer ikke til filtypen");
    EXPECT_EQ(chance(scanned(image, false)["/_HOTO.JPG"]), "God");
}

TEST(DeletedFragments, AreNotFoundASecondTimeByTheirContent)
{
    const auto photo = readFile(VINTREL_SAMPLES "/jpeg-large.jpg");
    const auto source = volumeWith("PHOTO   JPG", photo).source();
    for (const bool fragments : { false, true }) {
        const FullScan::Options options { .deep = DeepScanOptions(), .fragments = fragments };
        int carved = 0;
        for (const auto& volume : FullScan::run(*source, options, nullptr))
            carved += volume->type == FileSystemType::carved ? 1 : 0;
        EXPECT_EQ(carved, 0) << fragments;
    }
    FATImage whole({});
    whole.addFile(FATImage::root, { .name = "PHOTO   JPG" }, photo);
    const auto wholeSource = whole.source();
    for (const bool fragments : { false, true }) {
        const FullScan::Options options { .deep = DeepScanOptions(), .fragments = fragments };
        EXPECT_EQ(FullScan::run(*wholeSource, options, nullptr).size(), fragments ? 1 : 2);
    }
}
