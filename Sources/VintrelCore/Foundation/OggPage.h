#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// RFC 3533, The Ogg page format.
namespace OggPage {

struct Header {
    std::array<std::uint8_t, 4> magic;    //  0
    std::uint8_t version;                 //  4
    std::uint8_t flags;                   //  5
    std::array<std::uint8_t, 8> position; //  6
    LE32 stream;                          // 14  which of the logical streams the page belongs to
    LE32 sequence;                        // 18
    LE32 checksum;                        // 22
    std::uint8_t segments;                // 26  as many lengths follow, then the segments
};
static_assert(sizeof(Header) == 27 && offsetof(Header, checksum) == 22);

enum Flag : std::uint8_t { beginsStream = 0x02, endsStream = 0x04 };

/// Of a whole page, whose own field for it counts as zero.
std::uint32_t checksumOf(ByteView page);

} // namespace OggPage
