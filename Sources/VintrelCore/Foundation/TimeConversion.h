#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// A point in time. Nanoseconds hold every stored time that is accepted (1904 to 2107) without
/// rounding.
using Date = std::chrono::sys_time<std::chrono::nanoseconds>;

/// On-disk time stamps. None stands for "not set" and for what no calendar holds.
namespace TimeConversion {

/// FAT: local time in steps of two seconds, read in the machine's time zone. None when `date` is 0
/// and for impossible dates and times.
std::optional<Date> fromDOS(std::uint16_t date, std::uint16_t time);

/// The machine's local time. None for impossible dates and times, and outside 1900...2099.
std::optional<Date> fromLocal(std::chrono::year_month_day day, std::chrono::hours hour,
    std::chrono::minutes minute, std::chrono::seconds second);

/// exFAT: date in the upper half of `stamp`, time in the lower one. With bit 7 of `utcOffset` set
/// its low seven bits are a signed count of quarter hours east of UTC, otherwise the time is local.
std::optional<Date> fromExFAT(std::uint32_t stamp, std::uint8_t utcOffset);

/// NTFS: units of 100 ns since 1601. None at or before 1970 and from 2100 on.
std::optional<Date> fromFiletime(std::uint64_t value);

/// HFS+: seconds since 1904; None when 0.
std::optional<Date> fromHFS(std::uint32_t value);

/// APFS: nanoseconds since 1970; None when 0 and from 2100 on.
std::optional<Date> fromAPFS(std::uint64_t value);

/// A date as the machine's clock shows it, by a pattern of strftime(); what is shorter than a
/// second is cut off. Empty when the calendar does not reach so far.
std::string localText(Date date, const char* pattern);

/// A date in UTC as ISO 8601 has it: "2026-11-21T04:35:47Z", with nine digits of a second when it
/// is not a whole one.
std::string isoText(Date date);

} // namespace TimeConversion
