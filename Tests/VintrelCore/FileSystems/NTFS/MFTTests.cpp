#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/Scanning/QuickScan.h"

#include <gtest/gtest.h>

#include <functional>

using namespace NTFSTestVolume;

TEST(NTFSMFT, IsFoundByItsCopyToo)
{
    const std::string mirrorNote = "$MFT-posten var beskadiget – $MFTMirr blev brugt.";
    const std::string fixupNote = "$MFT-posten har fejl i opdateringssekvensen.";
    const struct {
        const char* what;
        std::function<void(Image&)> damage;
        std::optional<std::vector<std::string>> notes; ///< none: no volume
    } cases[] = {
        { "sound", [](Image&) {}, std::vector<std::string> {} },
        { "record gone", [](Image& image) { image.write(image.recordOffset(0), Bytes(1024)); },
            { { mirrorNote } } },
        { "a sector of the record is older",
            [](Image& image) { image.bytes()[image.recordOffset(0, 510)] ^= 1; },
            { { fixupNote } } },
        { "both gone",
            [](Image& image) {
                image.write(image.recordOffset(0), Bytes(1024));
                image.write(image.offsetOf(image.mirrorLCN()), Bytes(1024));
            },
            std::nullopt },
    };
    for (const auto& [what, damage, notes] : cases) {
        Image image;
        image.putFile(20, root, u"fil", bytesOf("x"));
        damage(image);
        const auto source = image.source();
        const auto result = QuickScanner::run(*source, nullptr);
        EXPECT_EQ(result.volumes.size(), notes ? 1u : 0u) << what;
        if (notes && !result.volumes.empty()) {
            EXPECT_EQ(result.volumes[0]->notes, *notes) << what;
            EXPECT_EQ(result.volumes[0]->root->totals().files, 1u) << what;
        }
    }
}

TEST(NTFSMFT, IsReadAcrossItsPieces)
{
    // Clusters smaller than records, and pieces of odd length: records lie across them.
    Image pieces({ .clusterSize = 512,
        .clusters = 900,
        .records = 40,
        .mft = { { 16, 45 }, { 100, 7 }, { 110, 28 } } });
    // Extension records of the MFT, one of which lies in the piece that the other one describes.
    Image chained({ .clusterSize = 512,
        .clusters = 900,
        .records = 60,
        .mft = { { 16, 48 }, { 100, 40 }, { 200, 32 } } });
    const auto list = Image::listContent(
        { { 0x80, { 0, 1 } }, { 0x80, { 30, 1 }, 88 }, { 0x80, { 20, 1 }, 48 } });
    chained.put(20,
        { .base = { 0, 1 },
            .attributes = { Image::data({ .runs = { { 100, 40 } }, .startVCN = 48 }) } });
    chained.put(30,
        { .base = { 0, 1 },
            .attributes = { Image::data({ .runs = { { 200, 32 } }, .startVCN = 88 }) } });
    chained.put(0,
        { .attributes = { Image::attribute(0x20, list),
              Image::data({ .runs = { { 16, 48 } }, .size = 61'440 }) } });
    for (auto* image : { &pieces, &chained }) {
        for (const std::uint64_t number : { 21u, 22u, 23u, 25u, 26u, 38u, 39u })
            image->putFile(number, root,
                u"fil " + std::u16string(1, static_cast<char16_t>(u'A' + number)), bytesOf("x"));
        const auto disk = parse(*image);
        EXPECT_EQ(disk.volume->root->totals().files, 7u) << disk.names();
        for (const auto& node : disk.volume->root->children())
            EXPECT_EQ(fate(*node), "Eksisterende, God");
    }
}

TEST(NTFSMFT, LosesOnlyTheRecordsWhosePlaceIsLost)
{
    const std::string partsNote = "Dele af $MFT kunne ikke findes. Filer kan mangle.";
    const struct {
        const char* what;
        std::function<void(Image&, std::uint64_t listLCN)> damage;
        std::size_t files;
        std::vector<std::string> notes;
    } rows[] = {
        { "sound", [](Image&, std::uint64_t) {}, 3, {} },
        { "its attribute list",
            [](Image& image, std::uint64_t list) { image.write(image.offsetOf(list), Bytes(512)); },
            3, {} },
        { "an extension record",
            [](Image& image, std::uint64_t) { image.write(image.recordOffset(30), Bytes(1024)); },
            2, { partsNote } },
        { "runs in its own record",
            [](Image& image, std::uint64_t) {
                image.put(0,
                    { .attributes
                        = { Image::data({ .runs = { { 16, 48 }, { 100, 40 }, { 200, 32 } },
                            .size = 61'440 }) } });
                const Bytes copy(image.bytes().end() - 1024, image.bytes().end());
                image.put(0,
                    { .attributes = { Image::data({ .runs = { { 16, 48 } }, .size = 61'440 }) } });
                image.write(image.offsetOf(image.mirrorLCN()), copy);
                image.write(image.recordOffset(20), Bytes(1024));
            },
            3, { "$MFT-posten var beskadiget – $MFTMirr blev brugt." } },
    };
    for (const auto& [what, damage, files, notes] : rows) {
        Image image({ .clusterSize = 512,
            .clusters = 900,
            .records = 60,
            .mft = { { 16, 48 }, { 100, 40 }, { 200, 32 } } });
        // Two extension records, one of which lies in the piece that the other one describes.
        const auto list = Image::listContent(
            { { 0x80, { 0, 1 } }, { 0x80, { 20, 1 }, 48 }, { 0x80, { 30, 1 }, 88 } });
        const auto listRuns = image.store(list);
        for (const std::uint64_t number : { 21u, 40u, 59u })
            image.putFile(number, root, u"fil", bytesOf("x"));
        image.put(20,
            { .base = { 0, 1 },
                .attributes = { Image::data({ .runs = { { 100, 40 } }, .startVCN = 48 }) } });
        image.put(30,
            { .base = { 0, 1 },
                .attributes = { Image::data({ .runs = { { 200, 32 } }, .startVCN = 88 }) } });
        image.put(0,
            { .attributes = { Image::nonResident(0x20, { .runs = listRuns, .size = list.size() }),
                  Image::data({ .runs = { { 16, 48 } }, .size = 61'440 }) } });
        damage(image, listRuns.front().lcn.value_or(0));
        const auto disk = parse(image);
        EXPECT_EQ(disk.volume->root->totals().files, files) << what;
        EXPECT_EQ(disk.volume->notes, notes) << what;
    }
}

TEST(NTFSMFT, TakesLostRecordsFromItsMirror)
{
    Image image({ .clusterSize = 4096, .clusters = 200 });
    image.putFile(20, root, u"fil", bytesOf("x"));
    const auto label = image.recordOffset(3);
    const auto mirrored = image.offsetOf(image.mirrorLCN()) + 3 * 1024;
    image.write(mirrored, parse(image).source->read(label, 1024, ReadMode::thorough));
    image.bytes()[label] ^= 1;
    EXPECT_EQ(parse(image).volume->label, "Data");
    image.bytes()[mirrored + 510] ^= 1;
    EXPECT_EQ(parse(image).volume->label, "");

    // The copy alone, as snapshots keep it, is no volume.
    image.bytes()[mirrored + 510] ^= 1;
    image.write(image.recordOffset(0), Bytes(64 * 1024));
    EXPECT_EQ(NTFSParser::parse(*image.source(), 0, "", nullptr), nullptr);
}

TEST(NTFSMFT, SaysHowManyRecordsOfFilesCannotBeRead)
{
    const std::string after = " kunne ikke læses. Filer kan mangle eller være ufuldstændige.";
    const struct {
        std::uint64_t from, to; // sectors of the MFT that are bad
        std::vector<std::string> notes;
    } cases[] = {
        { 2 * 14, 2 * 16, {} },
        { 2 * 40, 2 * 40 + 1, { "1 MFT-post" + after } },
        { 2 * 20 + 1, 2 * 23 + 1, { "4 MFT-poster" + after } },
    };
    for (const auto& [from, to, notes] : cases) {
        Image image; // most of whose records are blank
        image.putFile(20, root, u"fil", bytesOf("x"));
        auto source = image.source();
        const auto mft = image.recordOffset(0);
        source->addSimulatedBadRange({ mft + from * 512, mft + to * 512 });
        EXPECT_EQ(parse(std::move(source)).volume->notes, notes) << from;
    }
    // Part of the MFT lies behind the source's end.
    Image image;
    image.putFile(20, root, u"fil", bytesOf("x"));
    image.put(0,
        { .attributes
            = { Image::data({ .runs = { { 16, 64 }, { 5000, 16 } }, .size = 80 * 1024 }) } });
    EXPECT_EQ(parse(image).volume->notes,
        std::vector<std::string> { "Dele af $MFT kunne ikke findes. Filer kan mangle." });
}

TEST(NTFSMFT, EndsWhereItClaimsMoreThanTheSource)
{
    const std::uint64_t longest = (std::uint64_t { 1 } << 40) - 1;
    const std::uint64_t exabytes = std::uint64_t { 1 } << 62;
    const std::vector<Image::Data> claims {
        { .runs = { { 16, 64 }, { std::nullopt, longest }, { std::nullopt, longest }, { 16, 1 } },
            .size = exabytes },
        { .runs = { { 16, 64 }, { 16, longest } }, .size = exabytes },
        { .runs = RunList(100, { 16, 500 }), .size = exabytes },
        { .runs = { { 16, 64 } }, .size = exabytes },
    };
    for (const auto& claim : claims) {
        Image image;
        image.putFile(20, root, u"fil", bytesOf("x"));
        image.put(0, { .attributes = { Image::data(claim) } });
        const auto disk = parse(image);
        EXPECT_EQ(disk.content("/fil"), bytesOf("x"));
        EXPECT_LT(disk.source->bytesRead(), 3 * image.bytes().size());
    }
}

TEST(NTFSMFT, IsReadOnce)
{
    // A second boot sector, a cluster further on, to which the MFT begins with record 1.
    Image image;
    image.putFile(20, root, u"fil", bytesOf("x"));
    image.putFile(21, root, u"fil", bytesOf("x"));
    auto boot = firstOf(image.bytes(), 512);
    putLE(boot, 48, image.mftLCN() - 1, 8);
    image.write(1024, boot);
    const Image other({ .mft = { { 300, 64 } } });
    const auto first = parse(image);
    const Volume* const volumes[] = { first.volume.get() };
    const auto isRead = [&](const Image& disk, std::uint64_t offset, auto... known) {
        return NTFSParser::parse(*disk.source(), offset, "", nullptr, std::nullopt, 0, known...)
            != nullptr;
    };
    EXPECT_TRUE(isRead(image, 1024));
    EXPECT_FALSE(isRead(image, 1024, std::span(volumes)));
    EXPECT_TRUE(isRead(other, 0, std::span(volumes)));
}
