#include "Tests/Support/TimeZone.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <gtest/gtest.h>

#include <limits>

using namespace std::chrono;

namespace {

constexpr auto far = std::numeric_limits<std::int64_t>::max();

/// Runs a test under a time zone of its own.
class LocalTime : public ::testing::Test {
private:
    const TimeZone zone_ { "CET-1CEST,M3.5.0,M10.5.0/3" };
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

TEST(ByteView, NothingOutsideItIsRead)
{
    const Bytes bytes { 0, 0, 'a', 'b', 'a', 'b', 0x80, 0xFF };
    const ByteView view(bytes), pattern(view.sub(2, 2));
    EXPECT_EQ(view.u32le(4), 0xFF806261u);
    EXPECT_EQ(view.u32be(4), 0x616280FFu);
    EXPECT_EQ(view.uintLE(2, 3), 0x616261u);
    EXPECT_EQ(view.intLE(6, 2), -128);
    EXPECT_EQ(view.intLE(0, 8), std::bit_cast<std::int64_t>(view.u64le(0)));
    EXPECT_EQ(view.sub(7, far).size(), 1u);
    for (const std::int64_t at : { std::int64_t { -1 }, std::int64_t { 8 }, far }) {
        EXPECT_EQ(view.u32le(at), 0u) << at;
        EXPECT_EQ(view.intLE(at, 4), 0) << at;
        EXPECT_TRUE(view.sub(at, far).empty()) << at;
        EXPECT_FALSE(view.matches("ab", at)) << at;
        EXPECT_TRUE(view.isAllZero(at, 9)) << at;
    }
    EXPECT_EQ(view.u64be(1), 0u);
    EXPECT_EQ(view.uintLE(0, 9), 0u);
    EXPECT_TRUE(view.isAllZero(0, 2));
    EXPECT_FALSE(view.isAllZero(0, 3));
    EXPECT_FALSE(view.matches("\xFF\xFF", 7));
    EXPECT_EQ(view.firstIndex(pattern, -5), 2);
    EXPECT_EQ(view.firstIndex(pattern, 3), 4);
    EXPECT_EQ(view.firstIndex(pattern, 5), std::nullopt);
    EXPECT_EQ(view.firstIndex(pattern, far), std::nullopt);
}

TEST(ByteView, DecodesText)
{
    EXPECT_EQ(ByteView(Bytes { 0x41, 0x0A, 0x42, 0x00, 0x43 }).ascii(0, 5), "A_B");

    // Ø, a pair, NUL, A, half a unit.
    const Bytes units { 0xD8, 0x00, 0x3D, 0xD8, 0x00, 0xDE, 0x00, 0x00, 0x41, 0x00, 0x42 };
    EXPECT_EQ(ByteView(units).utf16le(0, 99), std::string("Ø\U0001F600\0A", 8));
    EXPECT_EQ(ByteView(units).utf16le(0, 2), "Ø\uFFFD");                   // the pair is cut in two
    EXPECT_EQ(ByteView(units).utf16le(4, 3), std::string("\uFFFD\0A", 5)); // and its other half
    EXPECT_EQ(ByteView(units).utf16be(7, 1), "A");
    EXPECT_EQ(ByteView(units).utf16le(99, 1), "");
}

TEST_F(LocalTime, DOSDatesAreLocal)
{
    const struct {
        std::uint16_t date, time;
        Date expected;
    } cases[] = {
        { dosDate(2026, 1, 31), dosTime(12, 30, 58),
            sys_days { 2026y / 1 / 31 } + 11h + 30min + 58s },
        { dosDate(2026, 7, 1), dosTime(0, 0, 0), sys_days { 2026y / 6 / 30 } + 22h },
        { dosDate(2026, 3, 29), dosTime(1, 59, 58),
            sys_days { 2026y / 3 / 29 } + 59min + 58s }, // the clock goes forward
        { dosDate(2026, 3, 29), dosTime(3, 0, 0), sys_days { 2026y / 3 / 29 } + 1h },
        { dosDate(2024, 2, 29), 0, sys_days { 2024y / 2 / 28 } + 23h },
    };
    for (const auto& [date, time, expected] : cases)
        EXPECT_EQ(TimeConversion::fromDOS(date, time), expected) << date << " " << time;
    const std::pair<std::uint16_t, std::uint16_t> impossible[] = { { 0, dosTime(12, 0, 0) },
        { dosDate(2026, 13, 1), 0 }, { dosDate(2026, 2, 31), 0 },
        { dosDate(2026, 1, 1), dosTime(24, 0, 0) }, { dosDate(2026, 1, 1), dosTime(1, 60, 0) },
        { dosDate(2026, 1, 1), dosTime(1, 0, 60) } };
    for (const auto& [date, time] : impossible)
        EXPECT_EQ(TimeConversion::fromDOS(date, time), std::nullopt) << date << " " << time;
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

TEST(TimeConversion, LeavesOutStampsThatMeanNoDate)
{
    EXPECT_EQ(TimeConversion::fromFiletime(116444736000000000), std::nullopt);
    EXPECT_EQ(TimeConversion::fromFiletime(116444736000000001), Date {} + 100ns);
    EXPECT_EQ(TimeConversion::fromFiletime(157469184000000000), std::nullopt); // 2100
    EXPECT_EQ(TimeConversion::fromHFS(0), std::nullopt);
    EXPECT_EQ(TimeConversion::fromHFS(0xFFFFFFFF), sys_days { 2040y / 2 / 6 } + 6h + 28min + 15s);
    EXPECT_EQ(TimeConversion::fromAPFS(0), std::nullopt);
    EXPECT_EQ(TimeConversion::fromAPFS(1'500'000'001), Date {} + 1500000001ns);
    EXPECT_EQ(TimeConversion::fromAPFS(4'102'444'800'000'000'000), std::nullopt);
}

TEST_F(LocalTime, DatesFarFromNowAreTold)
{
    const struct {
        std::optional<Date> date;
        std::string local, iso;
    } rows[] = {
        { TimeConversion::fromHFS(1), "1904-01-01 01:00:01", "1904-01-01T00:00:01Z" },
        { TimeConversion::fromDOS(dosDate(2107, 12, 31), dosTime(23, 59, 58)),
            "2107-12-31 23:59:58", "2107-12-31T22:59:58Z" },
    };
    for (const auto& [date, local, iso] : rows) {
        ASSERT_TRUE(date) << iso;
        EXPECT_EQ(TimeConversion::localText(*date, "%Y-%m-%d %H:%M:%S"), local);
        EXPECT_EQ(TimeConversion::isoText(*date), iso);
    }
    EXPECT_EQ(TimeConversion::isoText(Date {} - std::chrono::milliseconds { 500 }),
        "1969-12-31T23:59:59.500000000Z");
}
