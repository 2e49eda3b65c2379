#include "Tests/Support/TestSource.h"
#include "VintrelCore/Recovery/FileReader.h"
#include "VintrelCore/Recovery/LZNT1.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

/// What a stream delivered.
struct Delivered {
    Bytes bytes;
    std::vector<std::size_t> pieces;
    std::uint64_t holes = 0;
    std::uint64_t badBytes = 0;
};

Delivered deliver(const FileNode& node, DiskSource& source, std::size_t chunkSize = 4096,
    std::optional<std::uint64_t> limit = {}, std::size_t maxPieces = 99999)
{
    Delivered result;
    result.badBytes
        = FileReader::stream(node, source, chunkSize, limit, [&](const FileReader::Piece& piece) {
              result.bytes.insert(result.bytes.end(), piece.bytes.begin(), piece.bytes.end());
              result.bytes.resize(result.bytes.size() + piece.holeLength);
              result.pieces.push_back(piece.bytes.size());
              result.holes += piece.holeLength;
              return result.pieces.size() < maxPieces;
          });
    return result;
}

std::unique_ptr<FileNode> file(std::uint64_t size, FileData data)
{
    return FileNode::makeFile(
        "fil", size, EntryStatus::existing, Recoverability::good, std::move(data));
}

/// The bytes of one compressed chunk behind their header.
Bytes chunk(const Bytes& data, bool isCompressed = true)
{
    const auto header
        = static_cast<std::uint16_t>((isCompressed ? 0xB000 : 0x3000) | (data.size() - 1));
    return joined(
        { { static_cast<std::uint8_t>(header), static_cast<std::uint8_t>(header >> 8) }, data });
}

} // namespace

TEST(FileReader, FillsHolesAndMissingEndsWithZeros)
{
    const auto disk = patternBytes(64_KiB);
    auto source = makeSource(disk);
    const auto on = [&](std::size_t at, std::size_t count) {
        return Bytes(disk.begin() + static_cast<std::ptrdiff_t>(at),
            disk.begin() + static_cast<std::ptrdiff_t>(at + count));
    };
    const struct {
        const char* what;
        std::uint64_t size;
        ExtentList extents;
        Bytes expected;
        std::uint64_t holes;
    } cases[] = {
        { "two extents in file order", 5000, { { 8192, 4096 }, { 512, 904 } },
            joined({ on(8192, 4096), on(512, 904) }), 0 },
        { "a hole between", 9000, { { 1000, 100 }, { std::nullopt, 8192 }, { 0, 708 } },
            joined({ on(1000, 100), Bytes(8192), on(0, 708) }), 8192 },
        { "extents shorter than the file", 4096, { { 0, 10 } }, joined({ on(0, 10), Bytes(4086) }),
            4086 },
        { "extents longer than the file", 100, { { 0, 4096 }, { 8192, 4096 } }, on(0, 100), 0 },
        { "an extent that leaves the source", 2000, { { 64_KiB - 1000, 2000 } },
            joined({ on(64_KiB - 1000, 1000), Bytes(1000) }), 1000 },
        { "an extent beyond any source", 700, { { ~std::uint64_t { 0 } - 100, 700 } }, Bytes(700),
            700 },
        { "no extent", 700, {}, Bytes(700), 700 },
        { "an empty file", 0, { { 0, 100 } }, {}, 0 },
    };
    for (const auto& [what, size, extents, expected, holes] : cases) {
        const auto node = file(size, extents);
        for (const std::size_t chunkSize : { 7u, 4096u, 1u << 20 }) {
            const auto result = deliver(*node, *source, chunkSize);
            EXPECT_EQ(result.bytes, expected) << what;
            EXPECT_EQ(result.holes, holes) << what;
            EXPECT_EQ(result.badBytes, 0u) << what;
            EXPECT_TRUE(std::ranges::all_of(result.pieces, [&](auto piece) {
                return piece <= chunkSize;
            })) << what;
        }
        EXPECT_EQ(FileReader::readPrefix(*node, *source, 1_MiB), expected) << what;
    }
}

TEST(FileReader, StopsAtItsLimitAndWhenItIsTold)
{
    auto source = makeSource(patternBytes(64_KiB));
    const auto node = file(1000, ExtentList { { 0, 1000 } });
    EXPECT_EQ(deliver(*node, *source, 4096, 100).bytes.size(), 100u);
    EXPECT_EQ(deliver(*node, *source, 4096, 5000).bytes.size(), 1000u);
    EXPECT_TRUE(deliver(*node, *source, 4096, 0).pieces.empty());
    EXPECT_EQ(deliver(*node, *source, 100, {}, 1).bytes.size(), 100u);
    EXPECT_EQ(FileReader::readPrefix(*node, *source, 10).size(), 10u);
    EXPECT_EQ(FileReader::readPrefix(*node, *source, 0).size(), 0u);
    const auto hole
        = file(std::uint64_t { 1 } << 62, ExtentList {}); // takes neither time nor memory
    EXPECT_EQ(
        FileReader::stream(*hole, *source, 4096, {}, [](const FileReader::Piece&) { return true; }),
        0u);
}

TEST(FileReader, DeliversAHoleOfACompressedFileInOnePiece)
{
    // Units of two clusters of 512 bytes. A hole of 16 TiB begins and ends in the middle of one.
    auto source = makeSource(patternBytes(64_KiB));
    const CompressedRuns runs { .runs
        = { { 4, 3 }, { std::nullopt, std::uint64_t { 1 } << 35 }, { 10, 3 } },
        .clusterSize = 512,
        .unitClusters = 2 };
    const auto node = file((std::uint64_t { 1 } << 44) + 3072, runs);
    std::vector<std::uint64_t> holes;
    std::uint64_t total = 0;
    FileReader::stream(*node, *source, 4096, {}, [&](const FileReader::Piece& piece) {
        total += piece.size();
        if (piece.holeLength > 0)
            holes.push_back(piece.holeLength);
        return holes.size() < 100;
    });
    EXPECT_EQ(holes, std::vector<std::uint64_t> { (std::uint64_t { 1 } << 44) - 1024 });
    EXPECT_EQ(total, node->size);
}

TEST(FileReader, DeliversWhatTheRecordItselfHolds)
{
    auto source = makeSource(Bytes(512));
    EXPECT_EQ(deliver(*file(3, bytesOf("hejsa")), *source).bytes, bytesOf("hej"));
    EXPECT_EQ(deliver(*file(9, bytesOf("hejsa")), *source).bytes, bytesOf("hejsa")) << "not padded";
    EXPECT_TRUE(deliver(*file(9, NoData {}), *source).pieces.empty());
}

TEST(FileReader, CountsUnreadableBytes)
{
    const auto disk = patternBytes(1_MiB);
    auto source = makeSource(disk);
    source->addSimulatedBadRange({ 600'000, 600'001 });
    const auto result = deliver(
        *file(900'000, ExtentList { { 512, 450'000 }, { 460'800, 450'000 } }), *source, 4_MiB);
    EXPECT_EQ(result.badBytes, 512u);
    ASSERT_EQ(result.bytes.size(), 900'000u);
    const auto bad = 600'000 / 512 * 512 - 460'800 + 450'000;
    EXPECT_EQ(result.bytes[bad - 1], disk[600'000 / 512 * 512 - 1]);
    EXPECT_TRUE(ByteView(result.bytes).isAllZero(bad, 512));
    EXPECT_EQ(result.bytes[static_cast<std::size_t>(bad) + 512], disk[600'000 / 512 * 512 + 512]);
}

TEST(FileReader, DecompressesLZNT1)
{
    const Bytes abc { 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h' };
    Bytes longMatch { 0x02, 'x', 0x0D, 0x00 }; // x, then 16 more of it
    const struct {
        const char* what;
        Bytes input;
        std::string expected; ///< what precedes the zeros
    } cases[] = {
        { "literals", chunk(abc), "abcdefgh" },
        { "a match that repeats itself", chunk({ 0x02, 'a', 0x04, 0x00 }), "aaaaaaaa" },
        { "a match at a distance", chunk({ 0x08, 'a', 'b', 'c', 0x01, 0x20 }), "abcabca" },
        { "stored", chunk(bytesOf("stored"), false), "stored" },
        { "two chunks, distances count anew",
            joined({ chunk(abc), chunk({ 0x02, 'z', 0x00, 0x00 }) }), "abcdefghzzzz" },
        { "end mark", joined({ chunk(abc), { 0, 0 }, chunk(abc) }), "abcdefgh" },
        { "end mark at the start", { 0, 0, 'x' }, "" },
        { "distance before the chunk", chunk({ 0x02, 'a', 0x00, 0x10, 'b' }), "a" },
        { "distance before anything", chunk({ 0x01, 0x00, 0x00 }), "" },
        { "a token cut by the chunk's end",
            joined({ chunk({ 0x02, 'a', 0x00 }), chunk(bytesOf("b"), false) }), "ab" },
        { "a chunk longer than the input", { 0xFF, 0xBF, 0x00, 'a', 'b' }, "ab" },
        { "half a header", { 0x05 }, "" },
    };
    for (const auto& [what, input, expected] : cases) {
        auto padded = bytesOf(expected);
        padded.resize(64);
        EXPECT_EQ(FileReader::lznt1Decompress(input, 64), padded) << what;
    }

    Bytes widths = longMatch;
    widths[0] = 0x06;
    widths.insert(widths.end(),
        { 0x00, 0x80 }); // 17 bytes are there: 11 bits of length, 3, and 5 of distance, 17
    EXPECT_EQ(FileReader::lznt1Decompress(chunk(widths), 20), Bytes(20, 'x'));
    EXPECT_EQ(FileReader::lznt1Decompress(chunk({ 0x02, 'a', 0xFF, 0x0F }), 10), Bytes(10, 'a'))
        << "cut at the output's size";
}

TEST(FileReader, DecompressesUnitByUnit)
{
    // Units of four clusters of 512 bytes: plain, compressed into one cluster (of another place),
    // sparse, and a last one cut by the file's end.
    auto disk = patternBytes(64_KiB);
    Bytes unit;
    for (int i = 0; i < 2; ++i)
        unit = joined({ unit,
            chunk({ 0x02, static_cast<std::uint8_t>('a' + i), 0xFC, 0x03 }) }); // 1024 of it
    unit.resize(512);
    std::ranges::copy(unit, disk.begin() + 4096 + 20 * 512);
    auto source = makeSource(disk);
    const CompressedRuns runs { .runs
        = { { 2, 3 }, { 9, 1 }, { 20, 1 }, { std::nullopt, 3 }, { std::nullopt, 4 }, { 30, 4 } },
        .clusterSize = 512,
        .unitClusters = 4,
        .volumeOffset = 4096 };
    const auto clusters = [&](std::size_t first, std::size_t count) {
        const auto at = disk.begin() + static_cast<std::ptrdiff_t>(4096 + first * 512);
        return Bytes(at, at + static_cast<std::ptrdiff_t>(count * 512));
    };
    auto expected = joined({ clusters(2, 3), clusters(9, 1), Bytes(1024, 'a'), Bytes(1024, 'b'),
        Bytes(2048), clusters(30, 4) });
    expected.resize(7000);
    const auto result = deliver(*file(7000, runs), *source);
    EXPECT_EQ(result.bytes, expected);
    EXPECT_EQ(result.holes, 2048u);
    EXPECT_EQ(FileReader::readPrefix(*file(7000, runs), *source, 3000),
        Bytes(expected.begin(), expected.begin() + 3000));

    // What the file never wrote is a hole, whatever its clusters hold, and also in the middle of a
    // unit.
    for (const std::uint64_t initialized : { 0u, 100u, 3000u, 5000u, 6500u, 9999u }) {
        auto begun = runs;
        begun.initializedSize = initialized;
        auto cut = expected;
        std::fill(
            cut.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(initialized, 7000)),
            cut.end(), std::uint8_t { 0 });
        const auto shorter = deliver(*file(7000, begun), *source);
        EXPECT_EQ(shorter.bytes, cut) << initialized;
        const std::uint64_t sparse
            = initialized <= 4096 ? 0 : std::min<std::uint64_t>(initialized - 4096, 2048);
        EXPECT_EQ(shorter.holes, sparse + 7000 - std::min<std::uint64_t>(initialized, 7000))
            << initialized;
    }

    auto damaged = makeSource(disk);
    damaged->addSimulatedBadRange({ 4096 + 31 * 512, 4096 + 32 * 512 });
    EXPECT_EQ(deliver(*file(7000, runs), *damaged).badBytes, 512u);

    for (const auto& [clusterSize, unitClusters] :
        { std::pair<std::uint64_t, std::uint64_t> { 0, 16 }, { 4096, 0 },
            { 1ull << 40, 1ull << 40 } }) {
        auto impossible = runs;
        impossible.clusterSize = clusterSize;
        impossible.unitClusters = unitClusters;
        EXPECT_TRUE(deliver(*file(7000, impossible), *source).pieces.empty());
    }
    auto beyond = runs;
    beyond.runs = { { ~std::uint64_t { 0 } / 2, 4 } };
    EXPECT_EQ(deliver(*file(100, beyond), *source).bytes, Bytes(100));
}
