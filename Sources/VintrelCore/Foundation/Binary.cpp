#include "VintrelCore/Foundation/Binary.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <ctime>

std::uint64_t ByteView::uintLE(std::int64_t at, int width) const
{
    if (width < 1 || width > 8 || !holds(at, static_cast<std::size_t>(width)))
        return 0;
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = value << 8 | bytes_[static_cast<std::size_t>(at + i)];
    return value;
}

std::int64_t ByteView::intLE(std::int64_t at, int width) const
{
    if (width < 1 || width > 8)
        return 0;
    const int unused = 64 - 8 * width;
    return static_cast<std::int64_t>(uintLE(at, width) << unused) >> unused;
}

ByteView ByteView::sub(std::int64_t at, std::int64_t length) const
{
    if (length < 1 || at < 0 || static_cast<std::uint64_t>(at) >= bytes_.size())
        return {};
    const auto start = static_cast<std::size_t>(at);
    const auto wanted = static_cast<std::uint64_t>(length);
    return bytes_.subspan(
        start, static_cast<std::size_t>(std::min<std::uint64_t>(wanted, bytes_.size() - start)));
}

std::string ByteView::ascii(std::int64_t at, std::int64_t length) const
{
    std::string text;
    for (const auto byte : sub(at, length).span()) {
        if (byte == 0)
            break;
        text += byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '_';
    }
    return text;
}

template <class Unit> std::string ByteView::utf16(std::int64_t at, std::int64_t chars) const
{
    if (chars < 1 || at < 0 || static_cast<std::uint64_t>(at) >= bytes_.size())
        return {};
    const auto available = (static_cast<std::int64_t>(bytes_.size()) - at) / 2;
    std::u16string units(static_cast<std::size_t>(std::min(chars, available)), u'\0');
    for (auto& unit : units) {
        unit = load<Unit>(at).value_or(Unit {});
        at += 2;
    }
    return Unicode::fromUTF16(units);
}

std::string ByteView::utf16le(std::int64_t at, std::int64_t chars) const
{
    return utf16<LE16>(at, chars);
}

std::string ByteView::utf16be(std::int64_t at, std::int64_t chars) const
{
    return utf16<BE16>(at, chars);
}

bool ByteView::matches(ByteView pattern, std::int64_t at) const
{
    if (pattern.empty())
        return at >= 0;
    return holds(at, pattern.size())
        && std::memcmp(bytes_.data() + at, pattern.data(), pattern.size()) == 0;
}

bool ByteView::isAllZero(std::int64_t at, std::int64_t length) const
{
    const auto range = sub(at, length).span();
    // Compared with itself one byte on: as fast as memcmp, and no second buffer of zeros.
    return range.empty()
        || (range.front() == 0
            && std::memcmp(range.data(), range.data() + 1, range.size() - 1) == 0);
}

bool ByteView::isAllZero(std::int64_t at) const
{
    return isAllZero(at, static_cast<std::int64_t>(bytes_.size()));
}

std::optional<std::int64_t> ByteView::firstIndex(ByteView pattern, std::int64_t from) const
{
    from = std::max<std::int64_t>(from, 0);
    if (pattern.empty() || !holds(from, pattern.size()))
        return std::nullopt;
    const auto found = std::search(
        bytes_.begin() + from, bytes_.end(), pattern.bytes_.begin(), pattern.bytes_.end());
    if (found == bytes_.end())
        return std::nullopt;
    return found - bytes_.begin();
}

namespace TimeConversion {

namespace {

using namespace std::chrono;

/// 2100-01-01: later stamps are taken for damage.
constexpr seconds farFuture { 4'102'444'800 };
constexpr seconds from1601To1970 { 11'644'473'600 };
constexpr seconds from1904To1970 { 2'082'844'800 };

/// A DOS date and time as the calendar sees them, without a time zone.
struct DOSTime {
    year_month_day day;
    seconds sinceMidnight;
};

std::optional<DOSTime> decodeDOS(std::uint16_t date, std::uint16_t time)
{
    const year_month_day day { year { 1980 + (date >> 9) }, month { date >> 5 & 0xFu },
        std::chrono::day { date & 0x1Fu } };
    const hours hour { time >> 11 };
    const minutes minute { time >> 5 & 0x3F };
    const seconds second { (time & 0x1F) * 2 };
    if (date == 0 || !day.ok() || hour >= hours { 24 } || minute >= minutes { 60 }
        || second >= seconds { 60 })
        return std::nullopt;
    return DOSTime { day, hour + minute + second };
}

sys_seconds localToUTC(year_month_day day, seconds sinceMidnight)
{
    std::tm fields {};
    fields.tm_year = int { day.year() } - 1900;
    fields.tm_mon = static_cast<int>(unsigned { day.month() }) - 1;
    fields.tm_mday = static_cast<int>(unsigned { day.day() });
    const hh_mm_ss clock(sinceMidnight); // three fields: seconds alone would be wrong where the
                                         // clock changes that day
    fields.tm_hour = static_cast<int>(clock.hours().count());
    fields.tm_min = static_cast<int>(clock.minutes().count());
    fields.tm_sec = static_cast<int>(clock.seconds().count());
    fields.tm_isdst = -1;
    return sys_seconds { seconds { std::mktime(&fields) } };
}

/// The UTC offset of a local day, where it is the same from midnight to midnight. Asking the system
/// for every single entry would cost more than reading the directory.
struct DayOffset {
    year_month_day day {};
    std::optional<seconds>
        offset; ///< local time minus UTC; none when it changes in the course of the day

    static DayOffset of(year_month_day day)
    {
        const auto atStart = local(day) - localToUTC(day, seconds { 0 });
        const auto atEnd
            = local(day) + days { 1 } - localToUTC(sys_days { day } + days { 1 }, seconds { 0 });
        return { day, atStart == atEnd ? std::optional(atStart) : std::nullopt };
    }

    static sys_seconds local(year_month_day day) { return sys_days { day }; }
};

} // namespace

std::optional<Date> fromDOS(std::uint16_t date, std::uint16_t time)
{
    const auto decoded = decodeDOS(date, time);
    if (!decoded)
        return std::nullopt;
    thread_local DayOffset known;
    if (known.day != decoded->day)
        known = DayOffset::of(decoded->day);
    if (known.offset)
        return DayOffset::local(decoded->day) + decoded->sinceMidnight - *known.offset;
    return localToUTC(decoded->day, decoded->sinceMidnight);
}

std::optional<Date> fromLocal(year_month_day day, hours hour, minutes minute, seconds second)
{
    if (!day.ok() || day.year() < year { 1900 } || day.year() > year { 2099 }
        || hour >= hours { 24 } || minute >= minutes { 60 } || second >= seconds { 60 })
        return std::nullopt;
    return localToUTC(day, hour + minute + second);
}

std::optional<Date> fromExFAT(std::uint32_t stamp, std::uint8_t utcOffset)
{
    const auto date = static_cast<std::uint16_t>(stamp >> 16);
    const auto time = static_cast<std::uint16_t>(stamp & 0xFFFF);
    if ((utcOffset & 0x80) == 0)
        return fromDOS(date, time);
    const auto decoded = decodeDOS(date, time);
    if (!decoded)
        return std::nullopt;
    const int quarters = (utcOffset & 0x7F) - ((utcOffset & 0x40) != 0 ? 0x80 : 0);
    return sys_days { decoded->day } + decoded->sinceMidnight - minutes { 15 * quarters };
}

std::optional<Date> fromFiletime(std::uint64_t value)
{
    using Ticks = duration<std::int64_t, std::ratio<1, 10'000'000>>;
    constexpr std::uint64_t least = Ticks { from1601To1970 }.count();
    constexpr std::uint64_t limit = Ticks { from1601To1970 + farFuture }.count();
    if (value <= least || value >= limit)
        return std::nullopt;
    return Date { Ticks { static_cast<std::int64_t>(value - least) } };
}

std::optional<Date> fromHFS(std::uint32_t value)
{
    if (value == 0)
        return std::nullopt;
    return Date { seconds { value } - from1904To1970 };
}

std::optional<Date> fromAPFS(std::uint64_t value)
{
    constexpr std::uint64_t limit = nanoseconds { farFuture }.count();
    if (value == 0 || value >= limit)
        return std::nullopt;
    return Date { nanoseconds { static_cast<std::int64_t>(value) } };
}

} // namespace TimeConversion
