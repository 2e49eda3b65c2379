#pragma once

#include <cstdint>

/// A number of seven bits in each byte, the lowest ones first. The highest bit of a byte says that
/// another one follows.
struct SevenBits {
    std::uint64_t value = 0;
    unsigned bytes = 0;   ///< how many it takes up, also when it does not end
    bool isEnded = false; ///< whether it does within the most bits
};

/// The number whose bytes `next()` returns one after the other; a byte is asked for as long as one
/// follows. `mostBits`: at most 63.
template <class Next> SevenBits readSevenBits(Next next, unsigned mostBits = 63)
{
    SevenBits number;
    for (unsigned shift = 0; shift < mostBits && !number.isEnded; shift += 7) {
        const std::uint8_t byte = next();
        number.value |= std::uint64_t { byte & 0x7FU } << shift;
        number.isEnded = byte < 0x80;
        ++number.bytes;
    }
    return number;
}
