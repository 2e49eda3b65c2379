#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t frameSize = 417; // of MPEG-1, layer III, 128 kbit/s, 44.1 kHz

/// A tag of version 2.`major` with 20 bytes in it, and `behind` it as many frames as asked for.
Bytes mp3File(int major, int flags, const Bytes& behind, int frames)
{
    Content file;
    file.text("ID3").le(static_cast<unsigned>(major), 1).zeros(1);
    file.le(static_cast<unsigned>(flags), 1).be(20, 4).zeros(20).add(behind);
    for (int i = 0; i < frames; ++i)
        file.be(0xFFFB'9000, 4).upTo(file.size() + frameSize - 4, 0x55);
    return file;
}

} // namespace

TEST(MP3, IsItsTagAndItsFrames)
{
    const Bytes footer = Content().text("3DI").le(4, 1).zeros(1).le(0x10, 1).be(20, 4);
    const std::string all = "mp3 " + std::to_string(30 + 3 * frameSize);
    const struct {
        const char* what;
        Bytes file;
        std::string found;
    } cases[] = {
        { "a tag", mp3File(3, 0, {}, 3), all },
        { "a tag with a footer", mp3File(4, 0x10, footer, 3),
            "mp3 " + std::to_string(40 + 3 * frameSize) },
        { "padding that the tag does not count", mp3File(3, 0, Bytes(70), 3),
            "mp3 " + std::to_string(100 + 3 * frameSize) },
        { "something between tag and frames", mp3File(3, 0, bytesOf("hov"), 3), "-" },
        { "two frames", mp3File(3, 0, {}, 2), "-" },
        { "a tag of version 2.5", mp3File(5, 0, {}, 3), "-" },
    };
    for (const auto& [what, file, found] : cases)
        EXPECT_EQ(carve(file), found) << what;
}
