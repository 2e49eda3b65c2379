#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

// RFC 1952, GZIP file format: members that each unpack to their own end. Nothing says how long a
// member is, so that it has to be unpacked.

namespace Formats {

namespace {

constexpr std::uint8_t reservedFlags = 0xE0;
constexpr std::uint64_t flagsOffset = 3;
constexpr std::uint64_t maxMembers = 10'000'000;
constexpr std::size_t workPerByte = 4; // unpacking is slower than a search

/// Where the member that begins at `position` ends; none when it is damaged. `room`: for what it
/// unpacks to, which is of no use.
std::optional<std::uint64_t> behindMember(RandomReader& file, std::uint64_t position, Bytes& room)
{
    using Compression::Inflater;
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
    if ((file.u8(flagsOffset) & reservedFlags) != 0)
        return std::nullopt;
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
