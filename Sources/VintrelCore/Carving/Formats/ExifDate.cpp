#include "VintrelCore/Carving/Formats/Formats.h"

#include <charconv>

namespace Formats {

namespace {

constexpr std::uint16_t exifDirectory = 0x8769;
constexpr std::uint16_t captureTime = 0x9003;
constexpr std::uint16_t changeTime = 0x0132;
constexpr std::int64_t entrySize = 12;
constexpr std::int64_t leastSize = 17;

/// "2024:05:17 14:03:22". Cameras that do not know the time write zeros or blanks.
std::optional<Date> parseTime(std::string_view text)
{
    constexpr std::string_view pattern = "dddd:dd:dd dd:dd:dd";
    if (text.size() != pattern.size())
        return std::nullopt;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (pattern[i] == 'd' ? !isDigit : text[i] != pattern[i])
            return std::nullopt;
    }
    const auto number = [&](std::size_t at, std::size_t digits) {
        unsigned value = 0;
        std::from_chars(text.data() + at, text.data() + at + digits, value);
        return value;
    };
    using namespace std::chrono;
    const year_month_day day { year { static_cast<int>(number(0, 4)) }, month { number(5, 2) },
        std::chrono::day { number(8, 2) } };
    return TimeConversion::fromLocal(
        day, hours { number(11, 2) }, minutes { number(14, 2) }, seconds { number(17, 2) });
}

/// The Exif data, read in its own byte order.
struct Reader {
    ByteView bytes;
    bool isLittle;

    std::uint16_t u16(std::int64_t at) const
    {
        return isLittle ? bytes.u16le(at) : bytes.u16be(at);
    }
    std::uint32_t u32(std::int64_t at) const
    {
        return isLittle ? bytes.u32le(at) : bytes.u32be(at);
    }

    /// The time that the entry at `at` points to.
    std::optional<Date> time(std::int64_t at) const
    {
        const auto text = bytes.sub(u32(at + 8), 19);
        return parseTime({ reinterpret_cast<const char*>(text.data()), text.size() });
    }

    /// Calls `visit(tag, position)` for the entries of the directory at `start`, as far as they lie
    /// inside.
    template <class Visit> void forEachEntry(std::int64_t start, Visit visit) const
    {
        const auto size = static_cast<std::int64_t>(bytes.size());
        const int count = u16(start);
        for (int i = 0; i < count; ++i) {
            const std::int64_t position = start + 2 + i * entrySize;
            if (position > size - entrySize)
                return;
            visit(u16(position), position);
        }
    }
};

} // namespace

std::optional<Date> exifDate(ByteView tiff)
{
    const bool isLittle = tiff.matches("II", 0);
    if (static_cast<std::int64_t>(tiff.size()) < leastSize || (!isLittle && !tiff.matches("MM", 0)))
        return std::nullopt;
    const Reader reader { tiff, isLittle };
    std::optional<Date> taken;
    std::optional<Date> changed;
    reader.forEachEntry(reader.u32(4), [&](std::uint16_t tag, std::int64_t position) {
        if (tag == exifDirectory && !taken)
            reader.forEachEntry(
                reader.u32(position + 8), [&](std::uint16_t innerTag, std::int64_t inner) {
                    if (innerTag == captureTime && !taken)
                        taken = reader.time(inner);
                });
        else if (tag == changeTime && !changed)
            changed = reader.time(position);
    });
    return taken ? taken : changed;
}

} // namespace Formats
