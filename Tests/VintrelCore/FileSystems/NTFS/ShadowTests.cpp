#include "Tests/Images/ShadowArea.h"
#include "Tests/Support/DeepScan.h"
#include "Tests/Support/TimeZone.h"
#include "Tests/VintrelCore/FileSystems/NTFS/NTFSTestVolume.h"
#include "VintrelCore/Devices/SourceOpener.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Catalog.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Mapping.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace NTFSTestVolume;

namespace {

constexpr std::uint64_t areaStart = 64 * ShadowArea::blockSize;

Image emptyVolume() { return Image({ .clusters = 2600, .mft = { { 64, 64 } } }); }

/// A file whose content lies in the clusters `runs`.
Image::Record stored(std::u16string_view name, const Image::Runs& runs, const Bytes& content,
    bool inUse = true, std::uint64_t modified = Image::modification)
{
    return { .inUse = inUse,
        .attributes = { Image::standardInformation(Image::creation, modified),
            Image::fileName(root, name), Image::data({ .runs = runs, .size = content.size() }) } };
}

/// The volumes of a deep scan that are shadow copies.
VolumeList snapshotsOf(DiskSource& source)
{
    const TimeZone zone("UTC");
    auto volumes = FullScan::run(source, DeepScanOptions { .carve = false }, nullptr);
    std::erase_if(volumes, [](const auto& volume) { return volume->origin != "Skyggekopi"; });
    return volumes;
}

/// Each file with its fate and its content's first bytes.
std::string told(DiskSource& source, const Volume& volume)
{
    std::string text = volume.title() + ":";
    for (const auto* file : volume.root->allFiles()) {
        const auto content = FileReader::readPrefix(*file, source, 1_MiB);
        text += " " + file->path() + "=" + ByteView(content).ascii(0, 8) + "/"
            + std::to_string(std::ranges::count(content, content.empty() ? 0 : content.back()))
            + " (" + fate(*file) + ")";
    }
    return text;
}

/// `count` times the same letter.
Bytes letters(char letter, std::size_t count)
{
    return Bytes(count, static_cast<std::uint8_t>(letter));
}

/// An LZNT1 unit of 16 KiB of the same letter: a literal and one match in each chunk.
Bytes packedUnit(char letter)
{
    const Bytes chunk { 0x03, 0xB0, 0x02, static_cast<std::uint8_t>(letter), 0xFC, 0x0F };
    return joined({ chunk, chunk, chunk, chunk });
}

using Pieces = std::vector<NTFSShadow::Mapping::Piece>;

/// Where three blocks of the oldest copy lie, in blocks of the image.
Pieces located(const std::vector<std::vector<ShadowArea::Block>>& stores)
{
    auto image = emptyVolume();
    ShadowArea area(image, areaStart);
    for (const auto& store : stores)
        area.addStore(Image::creation, store);
    area.finish();
    const auto source = image.source();
    NTFSShadow::ChainBudget budget { 100 };
    std::vector<NTFSShadow::BlockList> lists;
    for (const auto& store : NTFSShadow::readCatalog(*source, 0))
        lists.push_back(NTFSShadow::BlockList::read(*source, 0, store.blockList, budget));
    return NTFSShadow::Mapping(0, image.bytes().size(), lists)
        .locate(10 * ShadowArea::blockSize, 3 * ShadowArea::blockSize);
}

} // namespace

TEST(NTFSShadow, CopiesAreVolumesOfWhatHasChangedSince)
{
    auto image = emptyVolume();
    const auto same = image.store(letters('s', 20'000));
    const auto changed = image.store(letters('a', 40'000));
    const auto gone = image.store(letters('g', 20'000));
    const auto reused = image.store(letters('r', 20'000), false);
    const auto packed = image.store(packedUnit('p'));
    image.put(20, stored(u"samme", same, letters('s', 20'000)));
    image.put(21, stored(u"ændret", changed, letters('a', 40'000)));
    image.put(22, stored(u"slettet siden", gone, letters('g', 20'000)));
    image.put(23, stored(u"slettet før", reused, letters('r', 20'000), false));
    image.put(24, named(u"lille", { Image::data(bytesOf("gammel")) }));
    image.put(25,
        named(u"pakket",
            { Image::data({ .runs = { packed[0], { std::nullopt, 15 } },
                .size = 16'384,
                .flags = 1,
                .compressionUnit = 4 }) }));
    const auto oldest = image.bytes();

    image.write(image.offsetOf(*changed[0].lcn), letters('b', 40'000));
    image.write(image.offsetOf(*packed[0].lcn), packedUnit('q'));
    image.put(21,
        stored(u"ændret", changed, letters('b', 40'000), true, Image::modification + 600000000));
    image.put(24, named(u"lille", { Image::data(bytesOf("nyere!")) }));
    const auto newer = image.bytes();

    image.write(image.offsetOf(*changed[0].lcn), letters('c', 40'000));
    image.put(21,
        stored(u"ændret", changed, letters('c', 40'000), true, Image::modification + 700000000));
    image.put(22,
        { .inUse = false,
            .sequence = 2,
            .attributes = stored(u"slettet siden", gone, letters('g', 20'000)).attributes });
    image.markUsed(*gone[0].lcn, gone[0].clusters, false);
    image.write(image.offsetOf(*gone[0].lcn), letters('n', 20'000));
    image.put(23, stored(u"ny", reused, letters('n', 20'000)));
    image.markUsed(*reused[0].lcn, reused[0].clusters);
    ShadowArea area(image, areaStart);
    area.addStore(Image::creation, area.changes(oldest, newer));
    area.addStore(Image::modification, area.changes(newer, image.bytes()));
    area.finish();

    const auto source = image.source();
    const auto snapshots = snapshotsOf(*source);
    ASSERT_EQ(snapshots.size(), 2u);
    EXPECT_EQ(told(*source, *snapshots[0]),
        "Data, 2022-06-18 04:26:40 (NTFS): /lille=gammel/1 (Eksisterende, God)"
        " /pakket=pppppppp/16384 (Eksisterende, God)"
        " /slettet før=rrrrrrrr/20000 (Slettet, Ringe: Klyngerne er genbrugt af andre filer)"
        " /slettet siden=gggggggg/20000 (Eksisterende, God)"
        " /ændret=aaaaaaaa/40000 (Eksisterende, God)");
    EXPECT_EQ(told(*source, *snapshots[1]),
        "Data, 2024-01-17 21:20:00 (NTFS):"
        " /slettet før=rrrrrrrr/20000 (Slettet, Delvis: Nogle af klyngerne er genbrugt af andre"
        " filer)"
        " /slettet siden=gggggggg/20000 (Eksisterende, God)"
        " /ændret=bbbbbbbb/40000 (Eksisterende, God)");

    // The second list of the newer copy is lost: what it kept reads as it is now.
    image.bytes()[area.listOffset(1) + ShadowArea::blockSize + 33] ^= 1;
    const auto damaged = image.source();
    const auto left = snapshotsOf(*damaged);
    ASSERT_EQ(left.size(), 2u);
    for (const auto& volume : left) {
        EXPECT_EQ(volume->notes.back(),
            "Dele af skyggekopiens blokliste er beskadiget. Filer kan mangle eller have nyere "
            "indhold.");
        for (const auto* file : volume->root->allFiles())
            EXPECT_EQ(file->recoverability == Recoverability::good,
                std::holds_alternative<Bytes>(file->data))
                << file->path();
    }
}

TEST(NTFSShadow, FindsEachBlockWhereACopyKeptIt)
{
    constexpr auto block = ShadowArea::blockSize;
    constexpr std::uint64_t b10 = 10 * block, b11 = 11 * block, b12 = 12 * block;
    constexpr std::uint64_t first = areaStart + 2 * block; // what the first entry kept
    constexpr auto self = NTFSShadow::Mapping::volumeItself;
    const auto kept = letters('k', block);
    const struct {
        const char* rule;
        std::vector<std::vector<ShadowArea::Block>> stores;
        Pieces expected;
    } rows[] = {
        { "nothing is kept", { {} }, { { b10, 3 * block, self } } },
        { "of two entries the older one counts", { { { b11, kept }, { b11, kept } } },
            { { b10, block, self }, { first, block, 0 }, { b12, block, self } } },
        { "an unused entry says nothing", { { { .original = b11, .kept = kept, .flags = 4 } } },
            { { b10, 3 * block, self } } },
        { "what this copy lacks the next one has",
            { { { b10, kept } }, { { b10, kept }, { b12, kept } } },
            { { first, block, 0 }, { b11, block, self }, { areaStart + 5 * block, block, 1 } } },
        { "sectors lie by themselves, those of several entries together",
            { { { .original = b11, .kept = kept, .flags = 2, .sectors = 0x1 },
                { .original = b11, .flags = 2, .sectors = 0x2, .sharedCopy = first },
                { .original = b11, .kept = kept } } },
            { { b10, block, self }, { first, 1024, 0 }, { first + block + 1024, block - 1024, 0 },
                { b12, block, self } } },
        { "a block that moved is where it went to",
            { { { .original = b11, .movedTo = 40 * block, .flags = 1 } } },
            { { b10, block, self }, { 40 * block, block, self }, { b12, block, self } } },
        { "and where that was kept when something else came there",
            { { { .original = b11, .movedTo = 40 * block, .flags = 1 }, { 40 * block, kept } } },
            { { b10, block, self }, { first, block, 0 }, { b12, block, self } } },
    };
    for (const auto& [rule, stores, expected] : rows)
        EXPECT_EQ(located(stores), expected) << rule;
}

/// With VINTREL_IMAGES, the folder that holds them unpacked.
TEST(NTFSShadow, AreFoundOnAVolumeOfWindows)
{
    const auto* const folder = std::getenv("VINTREL_IMAGES");
    if (folder == nullptr)
        GTEST_SKIP() << "no images";
    const auto source = SourceOpener::openImage(folder + std::string("/vsstest.raw"));
    const auto snapshots = snapshotsOf(*source);
    ASSERT_EQ(snapshots.size(), 2u);
    EXPECT_EQ(told(*source, *snapshots[0]),
        "vsstest, 2013-12-03 06:35:09 (NTFS): /syslog=Jan 22 0/15 (Eksisterende, God)");
    EXPECT_EQ(told(*source, *snapshots[1]), "vsstest, 2013-12-03 06:37:48 (NTFS):");
}

TEST(NTFSShadow, OutlivesDamagedCatalogsAndLists)
{
    auto image = emptyVolume();
    image.putFile(20, root, u"fil", letters('a', 20'000));
    const auto before = image.bytes();
    image.putFile(20, root, u"fil", letters('b', 20'000));
    ShadowArea area(image, areaStart);
    area.addStore(Image::creation, area.changes(before, image.bytes()));
    area.addStore(Image::modification, area.changes(before, image.bytes()));
    area.finish();
    const auto sound = image.bytes();
    std::mt19937 random(23);
    for (int round = 0; round < 400; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        image.bytes() = sound;
        for (auto count = 1 + random() % 4; count > 0; --count) {
            // A field of the catalog or of a list, often with a value that leads somewhere.
            const std::uint64_t at = areaStart + random() % 8 * ShadowArea::blockSize
                + (random() % 2 == 0 ? 16 + random() % 4 * 8 : 128 + random() % 64 * 8);
            const std::uint64_t value = random() % 3 == 0 ? ~std::uint64_t { 0 } >> random() % 64
                                                          : areaStart + random() % 8 * 0x4000;
            putLE(image.bytes(), at, value, 8);
        }
        const auto source = image.source();
        const auto volume = NTFSParser::parse(*source, 0, "prøve", nullptr);
        ASSERT_NE(volume, nullptr);
        for (const auto& snapshot : DeepScanner::snapshots(*source, std::span(&volume, 1), nullptr))
            for (const auto* file : snapshot->root->allFiles())
                ASSERT_LE(FileReader::readPrefix(*file, *source, 64_KiB).size(), 64_KiB);
        ASSERT_LT(source->bytesRead(), 64 * sound.size()) << "reads without end";
    }
}
