#include "Tests/Support/TestSource.h"
#include "VintrelCore/Disk/SweepWindow.h"

#include <gtest/gtest.h>

#include <algorithm>

TEST(SweepWindow, KeepsTheSweepsOwnChunkWhileOthersReadAhead)
{
    constexpr std::size_t chunk = SweepWindow::chunkSize;
    const auto bytes = patternBytes(6 * chunk + 1'000);
    const auto source = makeSource(bytes);
    SweepWindow window(*source);
    for (std::uint64_t position = 0; position < bytes.size(); position += chunk) {
        const auto own = window.moveTo(position);
        // Somebody looks at everything that the window gives, back and forth.
        for (const std::uint64_t ahead : { 3u, 1u, 2u, 5u, 0u, 3u })
            if (const auto other = window.chunkAt(position + ahead * chunk)) {
                ASSERT_TRUE(std::ranges::equal(other->bytes.span(),
                    std::span(bytes).subspan(other->offset, other->bytes.size())));
            }
        ASSERT_TRUE(std::ranges::equal(own.span(), std::span(bytes).subspan(position, own.size())))
            << position;
    }
    EXPECT_EQ(source->bytesRead(), bytes.size()) << "each byte is read once";
}

TEST(SweepWindow, ReachesAFewChunksAheadAndNeverBack)
{
    constexpr std::size_t chunk = SweepWindow::chunkSize;
    const auto source = makeSource(patternBytes(6 * chunk));
    SweepWindow window(*source);
    window.moveTo(chunk);
    EXPECT_FALSE(window.chunkAt(chunk - 1));
    EXPECT_TRUE(window.chunkAt(5 * chunk - 1));
    EXPECT_FALSE(window.chunkAt(5 * chunk));
    window.moveTo(5 * chunk);
    EXPECT_FALSE(window.chunkAt(6 * chunk));
}
