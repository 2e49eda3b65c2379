#include "VintrelCore/FileSystems/Ext/Checksums.h"

#include <array>
#include <bit>

namespace ExtChecksums {

namespace {

constexpr std::size_t stride = 8;
using Table = std::array<std::uint32_t, 256>;

/// Tables that take eight bytes in a step: the one with index n holds what a byte adds that is
/// followed by n others.
constexpr auto tables = [] {
    constexpr std::uint32_t polynomial = 0x82F6'3B78; // its lowest term is the highest bit
    std::array<Table, stride> made {};
    for (std::uint32_t byte = 0; byte < made[0].size(); ++byte) {
        std::uint32_t remainder = byte;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder & 1) != 0 ? remainder >> 1 ^ polynomial : remainder >> 1;
        made[0][byte] = remainder;
    }
    for (std::size_t step = 1; step < stride; ++step)
        for (std::size_t byte = 0; byte < made[0].size(); ++byte)
            made[step][byte] = made[step - 1][byte] >> 8 ^ made[0][made[step - 1][byte] & 0xFF];
    return made;
}();

/// The byte that left the register, by the highest byte of what it added.
constexpr auto reverseTable = [] {
    std::array<std::uint8_t, 256> made {};
    for (std::uint32_t byte = 0; byte < made.size(); ++byte)
        made[tables[0][byte] >> 24] = static_cast<std::uint8_t>(byte);
    return made;
}();

constexpr auto highTable = [] {
    constexpr std::uint32_t polynomial = 0x04C1'1DB7;
    Table made {};
    for (std::uint32_t byte = 0; byte < made.size(); ++byte) {
        std::uint32_t remainder = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder >> 31) != 0 ? remainder << 1 ^ polynomial : remainder << 1;
        made[byte] = remainder;
    }
    return made;
}();

} // namespace

std::uint32_t crc32c(std::uint32_t state, ByteView bytes)
{
    auto rest = bytes.span();
    for (; rest.size() >= stride; rest = rest.subspan(stride)) {
        const ByteView eight(rest.first(stride));
        const std::uint32_t low = state ^ eight.u32le(0);
        const std::uint32_t high = eight.u32le(4);
        state = tables[7][low & 0xFF] ^ tables[6][low >> 8 & 0xFF] ^ tables[5][low >> 16 & 0xFF]
            ^ tables[4][low >> 24] ^ tables[3][high & 0xFF] ^ tables[2][high >> 8 & 0xFF]
            ^ tables[1][high >> 16 & 0xFF] ^ tables[0][high >> 24];
    }
    for (const auto byte : rest)
        state = state >> 8 ^ tables[0][(state ^ byte) & 0xFF];
    return state;
}

std::uint32_t crc32c(std::uint32_t state, LE32 number)
{
    return crc32c(state, std::bit_cast<std::array<std::uint8_t, sizeof(LE32)>>(number));
}

std::uint32_t rewind32c(std::uint32_t state, ByteView bytes)
{
    const auto all = bytes.span();
    for (auto byte = all.rbegin(); byte != all.rend(); ++byte) {
        const auto left = reverseTable[state >> 24];
        state = (state ^ tables[0][left]) << 8 | static_cast<std::uint32_t>(left ^ *byte);
    }
    return state;
}

std::uint32_t crc32(std::uint32_t state, ByteView bytes)
{
    for (const auto byte : bytes.span())
        state = state << 8 ^ highTable[state >> 24 ^ byte];
    return state;
}

} // namespace ExtChecksums
