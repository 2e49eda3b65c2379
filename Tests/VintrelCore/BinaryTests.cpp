#include "VintrelCore/Binary.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

using namespace std::chrono;

namespace {

constexpr auto far = std::numeric_limits<std::int64_t>::max();

/// Runs a test under a time zone of its own.
class LocalTime : public ::testing::Test {
protected:
    void SetUp() override { use("CET-1CEST,M3.5.0,M10.5.0/3"); }
    void TearDown() override { use(nullptr); }
    static void use(const char* zone)
    {
        zone != nullptr ? setenv("TZ", zone, 1) : unsetenv("TZ");
        tzset();
    }
};

constexpr std::uint16_t dosDate(int year, int month, int day)
{
    return static_cast<std::uint16_t>((year - 1980) << 9 | month << 5 | day);
}

constexpr std::uint16_t dosTime(int hour, int minute, int second)
{
    return static_cast<std::uint16_t>(hour << 11 | minute << 5 | second / 2);
}

} // namespace

TEST(ByteView, ReadsNumbersInBothOrders)
{
    const Bytes bytes { 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xF8 };
    const ByteView view(bytes);
    EXPECT_EQ(view.u8(7), 0xF8);
    EXPECT_EQ(view.i8(7), -8);
    EXPECT_EQ(view.u16le(0), 0x0201);
    EXPECT_EQ(view.u16be(0), 0x0102);
    EXPECT_EQ(view.u32le(1), 0x05040302u);
    EXPECT_EQ(view.u32be(1), 0x02030405u);
    EXPECT_EQ(view.u64le(0), 0xF807060504030201u);
    EXPECT_EQ(view.u64be(0), 0x01020304050607F8u);
}

TEST(ByteView, NumbersThatLeaveItAreZero)
{
    const Bytes bytes(8, 0xFF);
    const ByteView view(bytes);
    EXPECT_NE(view.u32le(4), 0u);
    for (const std::int64_t at : { std::int64_t { -1 }, std::int64_t { 5 }, std::int64_t { 8 }, far }) {
        EXPECT_EQ(view.u32le(at), 0u) << at;
        EXPECT_EQ(view.u32be(at), 0u) << at;
        EXPECT_EQ(view.u64le(at), 0u) << at;
        EXPECT_EQ(view.uintLE(at, 4), 0u) << at;
        EXPECT_EQ(view.intLE(at, 4), 0) << at;
    }
    EXPECT_EQ(ByteView().u8(0), 0);
}

TEST(ByteView, NumbersOfAnyWidth)
{
    const Bytes bytes { 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80 };
    const ByteView view(bytes);
    EXPECT_EQ(view.intLE(0, 2), 32767);
    EXPECT_EQ(view.intLE(2, 2), -1);
    EXPECT_EQ(view.uintLE(0, 3), 0xFF7FFFu);
    EXPECT_EQ(view.intLE(0, 8), std::bit_cast<std::int64_t>(0x80FFFFFFFFFF7FFFu));
    for (const int width : { 0, 9, -1 }) {
        EXPECT_EQ(view.uintLE(0, width), 0u);
        EXPECT_EQ(view.intLE(0, width), 0);
    }
}

TEST(ByteView, SubIsCutAtTheEnd)
{
    const Bytes bytes { 1, 2, 3, 4 };
    const ByteView view(bytes);
    EXPECT_EQ(view.sub(1, 2).size(), 2u);
    EXPECT_EQ(view.sub(3, far).size(), 1u);
    for (const auto& [at, length] :
        { std::pair<std::int64_t, std::int64_t> { 0, 0 }, { 0, -1 }, { -1, 2 }, { 4, 1 }, { far, far } })
        EXPECT_TRUE(view.sub(at, length).empty()) << at << ", " << length;
}

TEST(ByteView, DecodesText)
{
    const Bytes ascii { 0x41, 0x0A, 0x42, 0x00, 0x43 };
    EXPECT_EQ(ByteView(ascii).ascii(0, 5), "A_B");
    EXPECT_EQ(ByteView(ascii).ascii(5, 5), "");

    const Bytes units { 0xD8, 0x00, 0x3D, 0xD8, 0x00, 0xDE, 0x00, 0x00, 0x41, 0x00,
        0x42 }; // Ø, a pair, NUL, A, half a unit
    EXPECT_EQ(ByteView(units).utf16le(0, 99), std::string("Ø\U0001F600\0A", 8));
    EXPECT_EQ(ByteView(units).utf16le(0, 2), "Ø\uFFFD"); // the pair is cut in two
    EXPECT_EQ(ByteView(units).utf16le(4, 1), "\uFFFD");
    EXPECT_EQ(ByteView(units).utf16be(7, 1), "A");
    EXPECT_EQ(ByteView(units).utf16le(0, 0), "");
    EXPECT_EQ(ByteView(units).utf16le(99, 1), "");
}

TEST(ByteView, ComparesAndSearches)
{
    const Bytes bytes { 0, 0, 'a', 'b', 'a', 'b', 0 };
    const ByteView view(bytes);
    EXPECT_TRUE(view.matches("ab", 4));
    EXPECT_FALSE(view.matches("ab", 6));
    EXPECT_FALSE(view.matches("ab", -1));
    EXPECT_TRUE(view.matches("", 99));
    EXPECT_FALSE(view.matches("", -1));

    EXPECT_TRUE(view.isAllZero(0, 2));
    EXPECT_FALSE(view.isAllZero(0, 3));
    EXPECT_TRUE(view.isAllZero(6, 99));
    EXPECT_TRUE(view.isAllZero(99));
    EXPECT_FALSE(view.isAllZero());

    const Bytes pattern { 'a', 'b' };
    EXPECT_EQ(view.firstIndex(pattern, -5), 2);
    EXPECT_EQ(view.firstIndex(pattern, 3), 4);
    EXPECT_EQ(view.firstIndex(pattern, 5), std::nullopt);
    EXPECT_EQ(view.firstIndex(pattern, far), std::nullopt);
    EXPECT_EQ(view.firstIndex(ByteView(), 0), std::nullopt);
}

TEST(ByteView, LoadsOnlyWholeRecords)
{
    struct Record {
        std::uint8_t kind;
        BE32 value;
    };
    const Bytes bytes { 9, 1, 2, 3, 4, 9 };
    EXPECT_EQ(ByteView(bytes).load<Record>(0)->value, 0x01020304u);
    EXPECT_FALSE(ByteView(bytes).load<Record>(2));
    EXPECT_FALSE(ByteView(bytes).load<Record>(-1));
}

TEST_F(LocalTime, DOSDatesAreLocal)
{
    const struct {
        const char* what;
        std::uint16_t date, time;
        std::optional<Date> expected;
    } cases[] = {
        { "the first date", 0x0021, 0, sys_days { 1980y / 1 / 1 } - 1h },
        { "winter", dosDate(2026, 1, 31), dosTime(12, 30, 58), sys_days { 2026y / 1 / 31 } + 11h + 30min + 58s },
        { "summer", dosDate(2026, 7, 1), dosTime(0, 0, 0), sys_days { 2026y / 6 / 30 } + 22h },
        { "before the clock goes forward", dosDate(2026, 3, 29), dosTime(1, 59, 58),
            sys_days { 2026y / 3 / 29 } + 59min + 58s },
        { "after it", dosDate(2026, 3, 29), dosTime(3, 0, 0), sys_days { 2026y / 3 / 29 } + 1h },
        { "not set", 0, dosTime(12, 0, 0), std::nullopt },
        { "month 0", dosDate(2026, 0, 1), 0, std::nullopt },
        { "month 13", dosDate(2026, 13, 1), 0, std::nullopt },
        { "day 0", dosDate(2026, 1, 0), 0, std::nullopt },
        { "31 February", dosDate(2026, 2, 31), 0, std::nullopt },
        { "leap day", dosDate(2024, 2, 29), 0, sys_days { 2024y / 2 / 28 } + 23h },
        { "hour 24", dosDate(2026, 1, 1), dosTime(24, 0, 0), std::nullopt },
        { "minute 60", dosDate(2026, 1, 1), dosTime(1, 60, 0), std::nullopt },
        { "second 60", dosDate(2026, 1, 1), dosTime(1, 0, 60), std::nullopt },
    };
    for (const auto& [what, date, time, expected] : cases)
        EXPECT_EQ(TimeConversion::fromDOS(date, time), expected) << what;
}

TEST_F(LocalTime, ExFATDatesKnowTheirOffset)
{
    const std::uint32_t stamp = std::uint32_t { dosDate(2026, 7, 1) } << 16 | dosTime(12, 0, 0);
    const auto day = sys_days { 2026y / 7 / 1 };
    EXPECT_EQ(TimeConversion::fromExFAT(stamp, 0x00), day + 10h);              // local
    EXPECT_EQ(TimeConversion::fromExFAT(stamp, 0x80), day + 12h);              // UTC
    EXPECT_EQ(TimeConversion::fromExFAT(stamp, 0x80 | 22), day + 6h + 30min);  // UTC+5:30
    EXPECT_EQ(TimeConversion::fromExFAT(stamp, 0x80 | (128 - 20)), day + 17h); // UTC-5
    EXPECT_EQ(TimeConversion::fromExFAT(0, 0x80), std::nullopt);
}

TEST(TimeConversion, StampsOfOtherSystems)
{
    const auto epoch = Date {};
    EXPECT_EQ(TimeConversion::fromFiletime(0), std::nullopt);
    EXPECT_EQ(TimeConversion::fromFiletime(116444736000000000), std::nullopt);
    EXPECT_EQ(TimeConversion::fromFiletime(116444736000000001), epoch + 100ns);
    EXPECT_EQ(TimeConversion::fromFiletime(157469183999999999), sys_days { 2100y / 1 / 1 } - 100ns);
    EXPECT_EQ(TimeConversion::fromFiletime(157469184000000000), std::nullopt);
    EXPECT_EQ(TimeConversion::fromFiletime(std::numeric_limits<std::uint64_t>::max()), std::nullopt);

    EXPECT_EQ(TimeConversion::fromHFS(0), std::nullopt);
    EXPECT_EQ(TimeConversion::fromHFS(1), sys_days { 1904y / 1 / 1 } + 1s);
    EXPECT_EQ(TimeConversion::fromHFS(0xFFFFFFFF), sys_days { 2040y / 2 / 6 } + 6h + 28min + 15s);

    EXPECT_EQ(TimeConversion::fromAPFS(0), std::nullopt);
    EXPECT_EQ(TimeConversion::fromAPFS(1'500'000'001), epoch + 1500000001ns);
    EXPECT_EQ(TimeConversion::fromAPFS(4'102'444'800'000'000'000), std::nullopt);
}
