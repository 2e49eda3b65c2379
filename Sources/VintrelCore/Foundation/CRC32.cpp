#include "VintrelCore/Foundation/CRC32.h"

#include <array>

namespace {

/// What each value of the byte that leaves the register adds to it.
constexpr auto table = [] {
    constexpr std::uint32_t polynomial = 0xEDB8'8320; // its lowest term is the highest bit
    std::array<std::uint32_t, 256> entries {};
    for (std::uint32_t byte = 0; byte < entries.size(); ++byte) {
        std::uint32_t remainder = byte;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder & 1) != 0 ? remainder >> 1 ^ polynomial : remainder >> 1;
        entries[byte] = remainder;
    }
    return entries;
}();

} // namespace

void CRC32::add(ByteView bytes)
{
    for (const auto byte : bytes.span())
        state_ = state_ >> 8 ^ table[(state_ ^ byte) & 0xFF];
}
