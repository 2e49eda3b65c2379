#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Audio File Format" (NeXT, Sun): one header and samples.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> magic; //  0  ".snd"
    BE32 dataOffset;                   //  4
    BE32 dataSize;                     //  8  all ones where the recorder did not know it
    BE32 encoding;                     // 12
    BE32 rate;                         // 16  samples in a second
    BE32 channels;                     // 20
};
static_assert(sizeof(Header) == 24 && offsetof(Header, dataSize) == 8);

constexpr std::uint32_t unknownSize = 0xFFFF'FFFF;
constexpr std::uint32_t maxDataOffset = 65'536; // a title lies in front
constexpr std::uint32_t maxEncoding = 27;
constexpr std::uint32_t maxRate = 1'000'000;
constexpr std::uint32_t maxChannels = 64;

} // namespace

Found au(const Candidate& candidate)
{
    const auto header = candidate.file.load<Header>(0);
    const bool isSane = header.dataOffset >= sizeof header && header.dataOffset <= maxDataOffset
        && header.encoding >= 1 && header.encoding <= maxEncoding && header.rate >= 1
        && header.rate <= maxRate && header.channels >= 1 && header.channels <= maxChannels;
    if (!isSane || header.dataSize == 0 || header.dataSize == unknownSize)
        return std::nullopt;
    return candidate.found(std::uint64_t { header.dataOffset } + header.dataSize, "au");
}

} // namespace Formats
