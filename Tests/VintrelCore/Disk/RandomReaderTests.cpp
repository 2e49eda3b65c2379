#include "Tests/Images/CarvedFile.h"
#include "VintrelCore/Disk/RandomReader.h"
#include "VintrelCore/Disk/SweepWindow.h"

#include <gtest/gtest.h>

TEST(RandomReader, AnswersZeroBeyondTheEndOfTheSource)
{
    const auto source = makeSource(bytesOf("abcdefgh"));
    RandomReader reader(*source, 2);
    EXPECT_EQ(reader.size(), 6u);
    EXPECT_EQ(reader.u32le(4), 0x6867u);
    EXPECT_EQ(reader.u32be(4), 0x67680000u);
    EXPECT_EQ(reader.u8(6), 0);
    EXPECT_EQ(reader.u64le(UINT64_MAX - 3), 0u);
    EXPECT_EQ(reader.bytes(5, 3), (Bytes { 'h', 0, 0 }));
    EXPECT_EQ(reader.find('h', 0, 1'000), 5u);
    EXPECT_EQ(reader.find('h', 0, 5), std::nullopt);
    EXPECT_EQ(reader.find("gh", 0, 1'000), 4u);
    EXPECT_EQ(reader.find("hi", 0, 1'000), std::nullopt);

    RandomReader beyond(*source, 9);
    EXPECT_EQ(beyond.size(), 0u);
    EXPECT_EQ(beyond.u8(0), 0);
    EXPECT_EQ(beyond.find(std::uint8_t { 0 }, 0, 9), std::nullopt);
    EXPECT_TRUE(beyond.stretch(0).empty());
}

TEST(RandomReader, ReadsEachPlaceOnceAndAlikeWhateverIsInMemory)
{
    auto bytes = patternBytes(5_MiB + 300);
    const std::string_view mark = "%%MARK";
    std::vector<std::uint64_t> places { 70'000, 1_MiB - 3, 2_MiB + 5, 2_MiB + 65'533,
        5_MiB + 300 - 6 };
    for (const auto place : places)
        std::copy(mark.begin(), mark.end(), bytes.begin() + static_cast<std::ptrdiff_t>(place));
    const auto source = makeSource(bytes);

    for (const bool hasWindow : { false, true }) {
        SweepWindow window(*source);
        RandomReader reader(*source, 1'000, hasWindow ? &window : nullptr);
        std::vector<std::uint64_t> found;
        std::uint64_t from = 0;
        while (const auto match = reader.find(mark, from, UINT64_MAX)) {
            found.push_back(*match + 1'000);
            from = *match + 1;
        }
        EXPECT_EQ(found, places);
        for (std::uint64_t at = 1'000; at + 8 < bytes.size(); at += 65'521)
            ASSERT_EQ(
                reader.u64le(at - 1'000), ByteView(bytes).u64le(static_cast<std::int64_t>(at)));
    }

    RandomReader reader(*source, 0);
    reader.u8(0);
    reader.u8(3_MiB);
    const auto read = source->bytesRead();
    reader.u8(0);
    reader.u8(3_MiB);
    EXPECT_EQ(source->bytesRead(), read);
}

TEST(RandomReader, StopsWhereItsWorkIsUsedUp)
{
    const auto source = Content().add(patternBytes(4_MiB)).text("the end").source();
    RandomReader reader(*source, 0);
    reader.limitWork(1_MiB);
    EXPECT_EQ(reader.find("the end", 0, UINT64_MAX), std::nullopt);
    EXPECT_TRUE(reader.isExhausted());
    EXPECT_LT(source->bytesRead(), 3_MiB);
    EXPECT_EQ(reader.u8(1), 0);
    reader.moveTo(0);
    EXPECT_EQ(reader.find("the end", 0, UINT64_MAX), 4_MiB);
    EXPECT_EQ(reader.u64le(1), ByteView(patternBytes(16)).u64le(1));
}
