#include "VintrelCore/Carving/Formats/AudioTags.h"
#include "VintrelCore/Carving/Formats/Formats.h"

// ISO/IEC 13818-7, Audio Data Transport Stream (ADTS): frames that each say their length.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr std::uint64_t headerSize = 7;
constexpr int minFrames = 4; // each repeats 28 bits of the first one

/// What stays the same from frame to frame, as a mask of the header's first four bytes: all up to
/// the copyright bits.
constexpr std::uint32_t fixedBits = 0xFFFF'FFF0;
constexpr std::uint32_t syncBits = 0xFFF6'0000; // the layer is always zero
constexpr std::uint32_t sync = 0xFFF0'0000;
constexpr std::uint32_t maxRateIndex = 12;

/// The length of the frame whose header begins with these eight bytes; 0 when it is none.
std::uint64_t frameLength(std::uint64_t header)
{
    const auto first = static_cast<std::uint32_t>(header >> 32);
    const std::uint32_t rateIndex = first >> 10 & 0xF;
    const std::uint64_t length = header >> 21 & 0x1FFF;
    const bool isHeader = (first & syncBits) == sync && rateIndex <= maxRateIndex;
    return isHeader && length > headerSize ? length : 0;
}

} // namespace

Found aac(const Candidate& candidate) { return aacBehindTag(candidate, 0); }

Found aacBehindTag(const Candidate& candidate, std::uint64_t tagSize)
{
    auto& file = candidate.file;
    const std::uint32_t kind = file.u32be(tagSize) & fixedBits;
    std::uint64_t position = tagSize;
    int frames = 0;
    while (position < limit) {
        const std::uint64_t header = file.u64be(position);
        const auto length = frameLength(header);
        if (length == 0 || (header >> 32 & fixedBits) != kind || !candidate.fits(position + length))
            break;
        position += length;
        ++frames;
    }
    if (frames < minFrames || position >= limit)
        return std::nullopt;
    return candidate.proved(behindAudioTags(file, position), "aac");
}

} // namespace Formats
