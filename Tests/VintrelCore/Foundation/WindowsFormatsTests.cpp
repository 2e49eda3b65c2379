#include "Tests/Images/WindowsPacking.h"
#include "Tests/Support/TestSource.h"
#include "VintrelCore/Foundation/Compression/WindowsFormats.h"
#include "VintrelCore/Foundation/WOF.h"

#include <gtest/gtest.h>

#include <random>

using namespace Compression;

namespace {

using Unpack = std::optional<Bytes> (*)(ByteView packed, std::size_t size);

/// Lengths of codes for pairs of symbols, by their place in the table, and the bits behind it.
Bytes xpressExample(
    std::initializer_list<std::pair<std::size_t, std::uint8_t>> lengths, const Bytes& bits)
{
    Bytes table(256);
    for (const auto& [at, pair] : lengths)
        table[at] = pair;
    return joined({ table, bits });
}

/// What repeats at several distances, with something new in between.
Bytes repetitive(std::size_t size)
{
    Bytes content;
    for (std::uint32_t seed = 0; content.size() < size; ++seed)
        content = joined({ content, bytesOf("abcdefghijklmnopqrstuvwxyz"), patternBytes(7, seed),
            Bytes(40 + seed, 0x20), bytesOf("abcdefghijklmnopqrstuvwxyz") });
    content.resize(size);
    return content;
}

} // namespace

TEST(WindowsFormats, UnpackTheExamplesOfTheirDocument)
{
    Bytes hundred;
    for (int i = 0; i < 100; ++i)
        hundred = joined({ hundred, bytesOf("abc") });
    const auto example = xpressExample({ { 48, 0x30 }, { 49, 0x23 }, { 128, 0x02 }, { 143, 0x20 } },
        { 0xA8, 0xDC, 0x00, 0x00, 0xFF, 0x26, 0x01 });
    EXPECT_EQ(unpackXpressHuffman(example, 300), hundred);
    auto alphabet
        = xpressExample({ { 48, 0x50 }, { 59, 0x45 }, { 60, 0x44 }, { 61, 0x04 }, { 128, 0x04 } },
            { 0xD8, 0x52, 0x3E, 0xD7, 0x94, 0x11, 0x5B, 0xE9, 0x19, 0x5F, 0xF9, 0xD6, 0x7C, 0xDF,
                0x8D, 0x04, 0x00, 0x00, 0x00, 0x00 });
    std::fill_n(alphabet.begin() + 49, 10, std::uint8_t { 0x55 });
    EXPECT_EQ(unpackXpressHuffman(alphabet, 26), bytesOf("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ(unpackXpressHuffman(xpressExample({ { 48, 0x30 } }, Bytes(8)), 3), std::nullopt)
        << "a table with codes to spare";
}

TEST(WindowsFormats, UnpackWhatWasPacked)
{
    const struct {
        const char* name;
        Unpack unpack;
        Bytes (*pack)(const Bytes& content);
    } formats[] = { { "XPRESS", unpackXpressHuffman, WindowsPacking::xpress },
        { "LZX", unpackLZX, WindowsPacking::lzx } };
    for (const auto& [name, unpack, pack] : formats)
        for (const std::size_t size : { 12u, 500u, 4095u, 32'768u }) {
            SCOPED_TRACE(name + std::to_string(size));
            const auto content = repetitive(size);
            auto packed = pack(content);
            EXPECT_EQ(unpack(packed, size), content);
            packed.resize(packed.size() - 8);
            EXPECT_EQ(unpack(packed, size), std::nullopt) << "cut";
        }
    // The target of a call is relative to the call, and targets outside the file stay.
    Bytes calls(64);
    for (const std::uint64_t at : { 4u, 20u })
        calls[at] = 0xE8;
    auto absolute = calls;
    absolute[5] = 100;
    absolute[24] = 0x7F;
    auto relative = absolute;
    relative[5] = 96;
    EXPECT_EQ(unpackLZX(WindowsPacking::lzx(absolute), 64), relative);
}

TEST(WindowsFormats, OutliveDamage)
{
    std::mt19937 random(3);
    const auto content = repetitive(4096);
    const Bytes sound[] = { WindowsPacking::xpress(content), WindowsPacking::lzx(content) };
    for (int round = 0; round < 4000; ++round) {
        auto packed = sound[round % 2];
        for (auto count = 1 + random() % 3; count > 0; --count)
            packed[random() % std::min<std::size_t>(packed.size(), 600)]
                = static_cast<std::uint8_t>(random());
        if (round % 8 == 0)
            packed.resize(random() % packed.size());
        const auto unpacked = (round % 2 == 0 ? unpackXpressHuffman : unpackLZX)(packed, 4096);
        ASSERT_TRUE(!unpacked || unpacked->size() == 4096);
    }
}

TEST(WindowsFormats, HaveTheirChunksInATable)
{
    const auto told = [](std::uint64_t size, Bytes stream) {
        std::string text;
        const auto read = [&](std::uint64_t, std::uint64_t) { return stream; };
        for (const auto& [at, length] : WOF::chunksOf(WOF::Method::xpress4K, size, 1000, read))
            text += std::to_string(at) + "+" + std::to_string(length) + " ";
        return text;
    };
    EXPECT_EQ(told(3 * 4096, { 100, 0, 0, 0, 0, 1, 0, 0 }), "8+100 108+156 264+736 ");
    EXPECT_EQ(told(3 * 4096, { 100, 0, 0, 0, 0, 0, 0, 0 }), "8+100 108+0 8+992 ")
        << "the second one ends before it begins";
    EXPECT_EQ(told(4096 * 300, {}), "") << "the table is longer than the stream";
}
