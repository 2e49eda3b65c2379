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

/// How many bits at the end of a frame fill its last byte, by its type.
using FrameFills = std::array<std::uint8_t, 16>;
constexpr FrameFills narrowFills { 1, 1, 2, 2, 4, 1, 4, 4, 1 };
constexpr FrameFills wideFills { 4, 7, 3, 3, 3, 3, 3, 3, 3 };

struct Kind {
    std::string_view magic;
    const FrameLengths& lengths;
    const FrameFills& fills;
};
constexpr Kind kinds[]
    = { { "#!AMR\n", narrowLengths, narrowFills }, { "#!AMR-WB\n", wideLengths, wideFills } };

std::size_t typeOf(std::uint8_t header) { return header >> 3 & 0xF; }

/// The length of a frame by its first byte; 0 when it is none. A frame that was damaged on its way
/// has no quality bit: it is refused, since zeros behind the file look the same.
std::uint64_t frameLength(std::uint8_t header, const FrameLengths& lengths)
{
    constexpr std::uint8_t reserved = 0x83;
    constexpr std::uint8_t goodQuality = 0x04;
    const bool isHeader = (header & reserved) == 0 && (header & goodQuality) != 0;
    return isHeader ? lengths[typeOf(header)] : 0;
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

/// Counts the frames whose last bytes are not filled with zeros.
class Fills {
public:
    void add(bool isFilled)
    {
        ++frames_;
        unfilled_ += isFilled ? 0 : 1;
        isLastFilled_ = isFilled;
    }
    int frames() const { return frames_; }
    /// Whether the last frame alone has no zeros there: nothing else tells a byte behind the file
    /// from one more frame.
    bool isLastForeign() const { return !isLastFilled_ && unfilled_ == 1 && frames_ > minFrames; }

private:
    int frames_ = 0;
    int unfilled_ = 0;
    bool isLastFilled_ = true;
};

Found withFrames(const Candidate& candidate, const Kind& kind)
{
    auto& file = candidate.file;
    std::uint64_t position = kind.magic.size();
    std::uint64_t last = position;
    Fills fills;
    std::array<bool, 256> isUsed {};
    while (position < limit) {
        const auto header = file.u8(position);
        const auto length = frameLength(header, kind.lengths);
        if (length == 0 || !candidate.fits(position + length)
            || (!isUsed[header] && !mayBeginMode(file, position, kind.lengths)))
            break;
        isUsed[header] = true;
        last = position;
        position += length;
        const auto fill = (1U << kind.fills[typeOf(header)]) - 1;
        fills.add(length == 1 || (file.u8(position - 1) & fill) == 0);
    }
    if (fills.frames() < minFrames || position >= limit)
        return std::nullopt;
    return candidate.proved(fills.isLastForeign() ? last : position, "amr");
}

} // namespace

Found amr(const Candidate& candidate)
{
    for (const auto& kind : kinds)
        if (candidate.file.matches(0, kind.magic))
            return withFrames(candidate, kind);
    return std::nullopt;
}

} // namespace Formats
