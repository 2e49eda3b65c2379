#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <algorithm>

// RFC 1952, GZIP file format: members that each unpack to their own end. Nothing says how long a
// member is, so that it has to be unpacked.

namespace Formats {

namespace {

enum Flag : std::uint8_t { hasExtra = 0x04, hasName = 0x08, hasComment = 0x10, reserved = 0xE0 };

struct MemberHeader {
    std::array<std::uint8_t, 3> magic;     // 0  the method is the last byte
    std::uint8_t flags;                    // 3
    LE32 modified;                         // 4
    std::array<std::uint8_t, 2> unchecked; // 8

    bool has(Flag flag) const { return (flags & flag) != 0; }
};
static_assert(sizeof(MemberHeader) == 10);

constexpr std::uint64_t maxMembers = 10'000'000;
constexpr std::size_t workPerByte = 4; // unpacking is slower than a search

/// Where the text at `position` ends, with the zero behind it; none where it is no text. A name
/// whose end is lost would lead into the next file.
std::optional<std::uint64_t> behindText(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t maxText = 4096;
    constexpr std::uint8_t firstPrintable = 0x20;
    const auto end = file.find(std::uint8_t { 0 }, position, position + maxText);
    if (!end)
        return std::nullopt;
    const auto text = file.bytes(position, static_cast<std::size_t>(*end - position));
    const bool isText = std::ranges::all_of(
        text, [](std::uint8_t byte) { return byte >= firstPrintable || byte == '\n'; });
    return isText ? std::optional(*end + 1) : std::nullopt;
}

/// Whether what stands in front of the packed bytes of the member at `position` is sound. Only its
/// beginning is asked for here, since who unpacks follows it, too.
bool hasSoundHeader(RandomReader& file, std::uint64_t position)
{
    const auto header = file.load<MemberHeader>(position);
    if (header.has(reserved))
        return false;
    std::optional<std::uint64_t> end = position + sizeof header;
    if (header.has(hasExtra))
        *end += sizeof(LE16) + file.u16le(*end);
    if (header.has(hasName))
        end = behindText(file, *end);
    if (end && header.has(hasComment))
        end = behindText(file, *end);
    return end.has_value();
}

/// Where the member that begins at `position` ends; none when it is damaged. `room`: for what it
/// unpacks to, which is of no use.
std::optional<std::uint64_t> behindMember(RandomReader& file, std::uint64_t position, Bytes& room)
{
    using Compression::Inflater;
    if (!hasSoundHeader(file, position))
        return std::nullopt;
    Inflater inflater(Inflater::Wrapping::gzip);
    while (true) {
        const auto bytes = file.stretch(position).span();
        if (bytes.empty())
            return std::nullopt;
        const auto progress = inflater.unpack(bytes, room);
        file.addWork((progress.consumed + progress.produced) * workPerByte);
        position += progress.consumed;
        if (progress.state == Inflater::State::ended)
            return position;
        const bool isStuck = progress.consumed == 0 && progress.produced == 0;
        if (progress.state == Inflater::State::damaged || isStuck)
            return std::nullopt;
    }
}

} // namespace

Found gzip(const Candidate& candidate)
{
    auto& file = candidate.file;
    Bytes room(65'536);
    std::uint64_t position = 0;
    for (std::uint64_t count = 0; count < maxMembers && mayJoin(position, count); ++count) {
        const auto end = behindMember(file, position, room);
        if (!end)
            break;
        position = *end;
    }
    return position > 0 ? Found(candidate.proved(position, "gz")) : std::nullopt;
}

} // namespace Formats
