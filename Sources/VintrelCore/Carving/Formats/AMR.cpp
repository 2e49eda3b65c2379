#include "VintrelCore/Carving/Formats/Formats.h"

// RFC 4867, AMR and AMR-WB storage format: a magic line, then frames of 20 ms.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr int minFrames = 3;

/// Lengths of frames by their type, header included; 0 for a type that is not in use.
using FrameLengths = std::array<std::uint8_t, 16>;
constexpr FrameLengths narrowLengths { 13, 14, 16, 18, 20, 21, 27, 32, 6, 0, 0, 0, 0, 0, 0, 1 };
constexpr FrameLengths wideLengths { 18, 24, 33, 37, 41, 47, 51, 59, 61, 6, 0, 0, 0, 0, 1, 1 };

constexpr struct {
    std::string_view magic;
    const FrameLengths& lengths;
} kinds[] = { { "#!AMR\n", narrowLengths }, { "#!AMR-WB\n", wideLengths } };

/// The length of a frame by its first byte; 0 when it is none. A frame that was damaged on its way
/// has no quality bit: it is refused, since zeros behind the file look the same.
std::uint64_t frameLength(std::uint8_t header, const FrameLengths& lengths)
{
    constexpr std::uint8_t reserved = 0x83;
    constexpr std::uint8_t goodQuality = 0x04;
    const bool isHeader = (header & reserved) == 0 && (header & goodQuality) != 0;
    return isHeader ? lengths[header >> 3 & 0xF] : 0;
}

/// Whether a mode of speech that was not used so far may begin at `position`: with several frames.
/// Silence may be a single one, also the last of all.
bool mayBeginMode(RandomReader& file, std::uint64_t position, const FrameLengths& lengths)
{
    constexpr int minRun = 4;
    constexpr std::uint8_t longestSilence = 6;
    for (int count = 0; count < minRun; ++count) {
        const auto length = frameLength(file.u8(position), lengths);
        if (length == 0)
            return false;
        if (length <= longestSilence)
            return true;
        position += length;
    }
    return true;
}

Found withFrames(const Candidate& candidate, std::uint64_t position, const FrameLengths& lengths)
{
    auto& file = candidate.file;
    int frames = 0;
    std::array<bool, 256> isUsed {};
    while (position < limit) {
        const auto header = file.u8(position);
        const auto length = frameLength(header, lengths);
        if (length == 0 || !candidate.fits(position + length)
            || (!isUsed[header] && !mayBeginMode(file, position, lengths)))
            break;
        isUsed[header] = true;
        position += length;
        ++frames;
    }
    return frames >= minFrames && position < limit ? Found(candidate.proved(position, "amr"))
                                                   : std::nullopt;
}

} // namespace

Found amr(const Candidate& candidate)
{
    for (const auto& [magic, lengths] : kinds)
        if (candidate.file.matches(0, magic))
            return withFrames(candidate, magic.size(), lengths);
    return std::nullopt;
}

} // namespace Formats
