#pragma once

#include <cstdint>
#include <limits>

/// The largest multiple of `unit`, which is not 0, that is not above `value`.
constexpr std::uint64_t roundDown(std::uint64_t value, std::uint64_t unit)
{
    return value - value % unit;
}

/// The end of the unit that holds `value`, but not beyond `limit`, which is not below `value`.
constexpr std::uint64_t unitEnd(std::uint64_t value, std::uint64_t unit,
    std::uint64_t limit = std::numeric_limits<std::uint64_t>::max())
{
    const std::uint64_t start = roundDown(value, unit);
    return limit - start < unit ? limit : start + unit;
}

/// How many units `count` takes up. Cannot overflow.
constexpr std::uint64_t unitsFor(std::uint64_t count, std::uint64_t unit)
{
    return count / unit + (count % unit != 0 ? 1 : 0);
}

/// The product, or the largest number there is where that is less.
constexpr std::uint64_t saturatingMultiply(std::uint64_t left, std::uint64_t right)
{
    constexpr auto limit = std::numeric_limits<std::uint64_t>::max();
    return right != 0 && left > limit / right ? limit : left * right;
}
