#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Standard MIDI Files 1.0": a header, then as many tracks as it says.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> type; //  0  "MThd"
    BE32 length;                      //  4  of what follows
    BE16 format, tracks, division;    //  8, 10, 12
};
static_assert(sizeof(Header) == 14 && offsetof(Header, format) == 8);

struct TrackHeader {
    std::array<std::uint8_t, 4> type; // 0  "MTrk"
    BE32 length;                      // 4
};
static_assert(sizeof(TrackHeader) == 8);

constexpr std::uint16_t maxFormat = 2;
constexpr std::uint64_t minHeaderLength = 6;
constexpr std::uint64_t maxHeaderLength = 1024;
constexpr std::uint64_t maxTrackLength = 67'108'864;
constexpr std::string_view endOfTrack { "\xFF\x2F\0", 3 };

} // namespace

Found midi(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    if (header.length < minHeaderLength || header.length > maxHeaderLength
        || header.format > maxFormat || header.tracks == 0)
        return std::nullopt;
    std::uint64_t position = offsetof(Header, format) + header.length;
    for (unsigned track = 0; track < header.tracks; ++track) {
        const auto chunk = file.load<TrackHeader>(position);
        if (!ByteView(chunk.type).matches("MTrk", 0) || chunk.length < endOfTrack.size()
            || chunk.length > maxTrackLength)
            return std::nullopt;
        position += sizeof chunk + chunk.length;
        if (!candidate.fits(position) || !file.matches(position - endOfTrack.size(), endOfTrack))
            return std::nullopt;
    }
    return candidate.proved(position, "mid");
}

} // namespace Formats
