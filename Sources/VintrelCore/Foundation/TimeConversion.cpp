#include "VintrelCore/Foundation/TimeConversion.h"

#include <array>
#include <cstdio>
#include <ctime>

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
    /// Local time minus UTC; none when it changes in the course of the day.
    std::optional<seconds> offset;

    static DayOffset onDay(year_month_day day)
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
        known = DayOffset::onDay(decoded->day);
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

std::string localText(Date date, const char* pattern)
{
    const std::time_t seconds = system_clock::to_time_t(
        time_point_cast<system_clock::duration>(floor<std::chrono::seconds>(date)));
    std::tm local {};
    std::array<char, 64> text;
    if (::localtime_r(&seconds, &local) == nullptr)
        return {};
    return { text.data(), std::strftime(text.data(), text.size(), pattern, &local) };
}

std::string isoText(Date date)
{
    const auto day = floor<std::chrono::days>(date);
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss time(date - day);
    std::array<char, 64> text {};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d",
        static_cast<int>(calendar.year()), static_cast<unsigned>(calendar.month()),
        static_cast<unsigned>(calendar.day()), static_cast<int>(time.hours().count()),
        static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
    std::string result = text.data();
    if (time.subseconds().count() != 0) {
        std::snprintf(
            text.data(), text.size(), ".%09lld", static_cast<long long>(time.subseconds().count()));
        result += text.data();
    }
    return result + "Z";
}

} // namespace TimeConversion
