#include "VintrelCore/Foundation/ByteCount.h"

#include <algorithm>
#include <iterator>
#include <limits>

std::string formatBytes(std::uint64_t count, std::string_view decimalSeparator)
{
    struct Unit {
        std::string_view name;
        std::uint64_t size;  ///< in bytes
        std::uint64_t steps; ///< steps that the shown number is rounded to, in one unit
    };
    constexpr Unit units[] = {
        { "KB", 1'000, 1 },
        { "MB", 1'000'000, 10 },
        { "GB", 1'000'000'000, 100 },
        { "TB", 1'000'000'000'000, 100 },
        { "PB", 1'000'000'000'000'000, 100 },
        { "EB", 1'000'000'000'000'000'000, 100 },
    };

    count = std::min<std::uint64_t>(count, std::numeric_limits<std::int64_t>::max());
    if (count < units[0].size)
        return count == 1 ? "1 byte" : std::to_string(count) + " bytes";
    for (const auto& unit : units) {
        const std::uint64_t step = unit.size / unit.steps;
        const std::uint64_t rounded = count / step + (count % step >= step - step / 2 ? 1 : 0);
        if (rounded >= 1000 * unit.steps && &unit != std::end(units) - 1)
            continue; // 999.96 MB is 1 GB
        std::string text = std::to_string(rounded / unit.steps);
        if (const std::uint64_t rest = rounded % unit.steps; rest != 0) {
            std::string decimals
                = std::to_string(unit.steps + rest).substr(1); // leading zeros kept
            decimals.erase(decimals.find_last_not_of('0') + 1);
            text.append(decimalSeparator).append(decimals);
        }
        return text.append(" ").append(unit.name);
    }
    return {}; // not reached: the last unit takes every count
}
