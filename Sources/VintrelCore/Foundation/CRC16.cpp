#include "VintrelCore/Foundation/CRC16.h"

#include <array>

namespace {

/// What each value of the byte that leaves the register adds to it.
constexpr auto table = [] {
    constexpr unsigned polynomial = 0xA001;
    std::array<std::uint16_t, 256> entries {};
    for (unsigned byte = 0; byte < entries.size(); ++byte) {
        unsigned remainder = byte;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder & 1) != 0 ? remainder >> 1 ^ polynomial : remainder >> 1;
        entries[byte] = static_cast<std::uint16_t>(remainder);
    }
    return entries;
}();

} // namespace

std::uint16_t crc16(std::uint16_t state, ByteView bytes)
{
    for (const auto byte : bytes.span())
        state = static_cast<std::uint16_t>(state >> 8 ^ table[(state ^ byte) & 0xFF]);
    return state;
}
