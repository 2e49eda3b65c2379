#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/CRC32.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <cstddef>

// RFC 1952, GZIP file format: members that each unpack to their own end. Nothing says how long a
// member is, so that it has to be unpacked.

namespace Formats {

namespace {

struct MemberHeader {
    std::array<std::uint8_t, 3> magic; // 0  1F 8B, and 8 for deflate
    std::uint8_t flags;                // 3
    LE32 time;                         // 4
    std::uint8_t level, system;        // 8, 9
};
static_assert(sizeof(MemberHeader) == 10);

struct MemberEnd {
    LE32 checksum, size; // 0, 4  of what was packed
};
static_assert(sizeof(MemberEnd) == 8);

enum Flag : std::uint8_t {
    hasHeaderChecksum = 0x02,
    hasExtra = 0x04,
    hasName = 0x08,
    hasComment = 0x10,
    reservedFlags = 0xE0,
};

constexpr std::string_view magic { "\x1F\x8B\x08", 3 };
constexpr std::uint64_t maxText = 65'536;
constexpr std::uint64_t maxMembers = 10'000'000;
constexpr std::size_t workPerByte = 4; // unpacking is slower than a search

/// Where the packed data of the member at `position` begins; none when its header is malformed.
std::optional<std::uint64_t> behindHeader(RandomReader& file, std::uint64_t position)
{
    const auto header = file.load<MemberHeader>(position);
    if (!ByteView(header.magic).matches(magic, 0) || (header.flags & reservedFlags) != 0)
        return std::nullopt;
    position += sizeof header;
    if ((header.flags & hasExtra) != 0)
        position += sizeof(LE16) + file.u16le(position);
    for (const auto flag : { hasName, hasComment }) {
        if ((header.flags & flag) == 0)
            continue;
        const auto end = file.find(std::uint8_t { 0 }, position, position + maxText);
        if (!end)
            return std::nullopt;
        position = *end + 1;
    }
    return position + ((header.flags & hasHeaderChecksum) != 0 ? sizeof(LE16) : 0);
}

/// Where the packed data that begins at `position` ends, with what it unpacked to; none when it is
/// damaged.
struct Unpacked {
    std::uint64_t end;
    std::uint64_t size;
    std::uint32_t checksum;
};
std::optional<Unpacked> unpack(RandomReader& file, std::uint64_t position, Bytes& room)
{
    using Compression::Inflater;
    Inflater inflater(Inflater::Wrapping::raw);
    CRC32 checksum;
    std::uint64_t size = 0;
    while (true) {
        const auto bytes = file.stretch(position).span();
        if (bytes.empty())
            return std::nullopt;
        const auto progress = inflater.unpack(bytes, room);
        checksum.add(ByteView(room).sub(0, static_cast<std::int64_t>(progress.produced)));
        file.addWork((progress.consumed + progress.produced) * workPerByte);
        position += progress.consumed;
        size += progress.produced;
        if (progress.state == Inflater::State::ended)
            return Unpacked { position, size, checksum.value() };
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
        const auto data = behindHeader(file, position);
        const auto unpacked = data ? unpack(file, *data, room) : std::nullopt;
        const auto end = unpacked ? file.load<MemberEnd>(unpacked->end) : MemberEnd {};
        const bool isWhole = unpacked && candidate.fits(unpacked->end + sizeof end)
            && end.checksum == unpacked->checksum
            && end.size == static_cast<std::uint32_t>(unpacked->size & 0xFFFF'FFFF);
        if (!isWhole)
            break;
        position = unpacked->end + sizeof end;
    }
    return position > 0 ? Found(candidate.proved(position, "gz")) : std::nullopt;
}

} // namespace Formats
