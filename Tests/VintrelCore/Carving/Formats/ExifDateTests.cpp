#include "Tests/Support/TimeZone.h"
#include "Tests/VintrelCore/Carving/Carve.h"
#include "VintrelCore/Carving/Formats/Formats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>

using namespace std::string_view_literals;

namespace {

constexpr std::string_view summer = "2024:05:17 14:03:22", winter = "2024:01:17 14:03:22";
constexpr std::int64_t summerSeconds = 1'715'947'402, winterSeconds = 1'705'496'602;

/// The TIFF structure of Exif data with a time of change and one of capture.
Bytes exif(std::string_view changed, std::string_view taken, std::string_view magic = "II*\0"sv)
{
    auto tiff = tiffFile(magic, { { 0x132, 2, 20, 200 }, { 0x8769, 4, 1, 100 } },
        { { 200, changed }, { 230, taken } }, 256, 8);
    const auto inner = tiffFile(magic, { { 0x9003, 2, 20, 230 } }, {}, 64, 8);
    std::copy(inner.begin() + 8, inner.begin() + 24, tiff.begin() + 100);
    return tiff;
}

/// Seconds since 1970, -1 for none.
std::int64_t seconds(const std::optional<Date>& date)
{
    return date ? std::chrono::floor<std::chrono::seconds>(*date).time_since_epoch().count() : -1;
}

std::optional<Date> dateOfFile(const Bytes& file)
{
    const auto source = Content().add(file).upTo(4_KiB).source();
    const auto found
        = Carver(*source, carvedCategories()).check(source->read(0, 64, ReadMode::fast), 0);
    EXPECT_TRUE(found);
    return found ? found->date : std::nullopt;
}

/// Cameras write the time of the place where they are.
struct CaptureDate : ::testing::Test {
    const TimeZone zone { "Europe/Copenhagen" };
};

} // namespace

TEST_F(CaptureDate, IsTheTimeOfCaptureInBothByteOrders)
{
    EXPECT_EQ(seconds(Formats::exifDate(exif(winter, summer))), summerSeconds);
    EXPECT_EQ(seconds(Formats::exifDate(exif(winter, summer, "MM\0*"sv))), summerSeconds);
}

TEST_F(CaptureDate, IsTheTimeOfChangeWhereNoCalendarHoldsTheOther)
{
    for (const auto* const bad :
        { "2024:13:17 14:03:22", "2024:02:30 14:03:22", "2024:05:17 24:00:00",
            "    :  :     :  :  ", "0000:00:00 00:00:00", "2024-05-17 14:03:22", "" })
        EXPECT_EQ(seconds(Formats::exifDate(exif(winter, bad))), winterSeconds) << bad;
    EXPECT_EQ(seconds(Formats::exifDate(exif("", ""))), -1);
    EXPECT_EQ(seconds(Formats::exifDate(Bytes(16, 'I'))), -1) << "too short";
}

TEST_F(CaptureDate, IsFoundInAPhotograph)
{
    EXPECT_EQ(seconds(dateOfFile(jpegFile(exifSegment(exif("", summer))))), summerSeconds);
}

TEST_F(CaptureDate, IsFoundInTheHeaderOfAMovie)
{
    constexpr std::uint64_t from1904 = 3'798'792'202, firstOf1970 = 2'082'844'800;
    const struct {
        const char* what;
        Bytes header;
        std::int64_t expected;
    } cases[] = {
        { "32 bits", Content().zeros(4).be(from1904, 4).zeros(8), summerSeconds },
        { "64 bits", Content().be(1, 1).zeros(3).be(from1904, 8), summerSeconds },
        { "1970", Content().zeros(4).be(firstOf1970, 4), -1 },
        { "more than any clock counts", Content().be(1, 1).zeros(3).be(UINT64_MAX, 8), -1 },
    };
    for (const auto& [what, header, expected] : cases)
        EXPECT_EQ(seconds(dateOfFile(Content()
                                         .add(isoBox("ftyp", bytesOf("isom0000")))
                                         .add(isoBox("moov", isoBox("mvhd", header)))
                                         .add(isoBox("mdat")))),
            expected)
            << what;
}
