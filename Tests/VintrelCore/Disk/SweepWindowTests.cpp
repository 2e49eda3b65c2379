#include "Tests/Support/TestSource.h"
#include "VintrelCore/Disk/SweepWindow.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

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

TEST(SweepWindow, ReadsAheadOneReadAtATimeUntilTheFirstError)
{
    constexpr std::size_t chunk = SweepWindow::chunkSize;
    constexpr std::uint64_t chunks = 6, badChunk = 3;
    std::atomic<int> reading = 0;
    std::atomic<std::uint64_t> readUpTo = 0;
    DiskSource source({ .descriptor = {},
        .path = {},
        .displayName = {},
        .size = chunks * chunk,
        .bsdName = {},
        .cleanup = {},
        .read = [&](std::uint64_t offset, std::span<std::uint8_t> into) {
            EXPECT_EQ(++reading, 1);
            std::ranges::fill(into, static_cast<std::uint8_t>(1 + offset / chunk));
            std::this_thread::yield();
            --reading;
            readUpTo = std::max<std::uint64_t>(readUpTo, offset + into.size());
            const bool isBad
                = offset + into.size() > badChunk * chunk && offset <= badChunk * chunk;
            return !isBad;
        } });
    SweepWindow window(source);
    for (std::uint64_t index = 0; index < chunks; ++index) {
        const auto own = window.moveTo(index * chunk);
        EXPECT_EQ(own.u8(chunk - 1), index + 1);
        EXPECT_EQ(own.u8(0), index == badChunk ? 0 : index + 1);
        const auto before = readUpTo.load();
        window.readAhead((index + 1) * chunk);
        if (index == 0) {
            EXPECT_EQ(window.chunkAt(2 * chunk)->bytes.u8(0), 3) << "while another one is read";
        } else if (index >= badChunk) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_EQ(readUpTo, before) << "nothing is read ahead on a disk with errors";
        }
    }
    EXPECT_EQ(source.badSectorCount(), 1u);
}
