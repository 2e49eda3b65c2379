#include "VintrelCore/Foundation/OggPage.h"

namespace OggPage {

namespace {

/// What each value of the byte that leaves the register adds to it. Unlike the usual checksum its
/// bits are not reflected.
constexpr auto table = [] {
    constexpr std::uint32_t polynomial = 0x04C1'1DB7, top = 0x8000'0000;
    std::array<std::uint32_t, 256> entries {};
    for (std::uint32_t byte = 0; byte < entries.size(); ++byte) {
        std::uint32_t remainder = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder & top) != 0 ? remainder << 1 ^ polynomial : remainder << 1;
        entries[byte] = remainder;
    }
    return entries;
}();

} // namespace

std::uint32_t checksumOf(ByteView page)
{
    constexpr std::size_t field = offsetof(Header, checksum);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < page.size(); ++i) {
        const bool isOwn = i >= field && i < field + sizeof(LE32);
        sum = sum << 8 ^ table[(sum >> 24 ^ (isOwn ? 0 : page.data()[i])) & 0xFF];
    }
    return sum;
}

} // namespace OggPage
