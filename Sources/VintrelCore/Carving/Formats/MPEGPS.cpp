#include "VintrelCore/Carving/Formats/Formats.h"

// ISO/IEC 13818-1 (ITU-T H.222.0) and 11172-1, program stream: packs of packets that each say their
// length. On DVDs it lies in sectors of 2048 bytes, with packets for the player in front.

namespace Formats {

namespace {

constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr int minPackets = 2;

enum Code : std::uint32_t {
    programEnd = 0x1B9,
    pack = 0x1BA,
    systemHeader = 0x1BB,
    privateStream1 = 0x1BD,
    privateStream2 = 0x1BF,
    firstSound = 0x1C0,
    lastVideo = 0x1EF,
    lastStream = 0x1FF,
};

/// The length of the pack header at `position`, which MPEG-1 and MPEG-2 mark in their own ways; 0
/// when it is none.
std::uint64_t packHeaderSize(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t sizeOfFirst = 12;
    constexpr std::uint64_t sizeOfSecond = 14;
    const auto mark = file.u8(position + 4);
    if (mark >> 4 == 2)
        return sizeOfFirst;
    if (mark >> 6 == 1)
        return sizeOfSecond + (file.u8(position + sizeOfSecond - 1) & 7); // stuffing
    return 0;
}

/// The length of what begins at `position` with a code; 0 when that is nothing of a stream.
std::uint64_t unitSize(RandomReader& file, std::uint64_t position, std::uint32_t code)
{
    constexpr std::uint64_t codeSize = 4;
    if (code == pack)
        return packHeaderSize(file, position);
    if (code == programEnd)
        return codeSize;
    if (code < systemHeader || code > lastStream)
        return 0;
    const std::uint64_t length = file.u16be(position + codeSize);
    return length == 0 ? 0 : codeSize + sizeof(BE16) + length;
}

/// Where the next pack begins behind the zeros at `position`, which fill the sectors of a Video CD;
/// none where something else lies there.
std::optional<std::uint64_t> behindFill(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t longest = 64;
    for (std::uint64_t end = position; end - position < longest; ++end) {
        if (file.u32be(end) == pack)
            return end;
        if (file.u8(end) != 0)
            break;
    }
    return std::nullopt;
}

/// The system clock reference of the pack header at `position`, without its fraction.
std::uint64_t clockOf(RandomReader& file, std::uint64_t position)
{
    const std::uint64_t bits = file.u64be(position + 4);
    if (bits >> 62 == 1) // 01, 3 bits, 1, 15 bits, 1, 15 bits
        return (bits >> 59 & 7) << 30 | (bits >> 43 & 0x7FFF) << 15 | (bits >> 27 & 0x7FFF);
    return (bits >> 57 & 7) << 30 | (bits >> 41 & 0x7FFF) << 15 | (bits >> 25 & 0x7FFF);
}

/// Whether the pack of `size` bytes at `position` begins another file: the clock, which was at
/// `clock`, does not go on, and a description of the streams comes first. A DVD has several
/// recordings in one file; its packets for the player count their sectors through all of them.
bool beginsAnother(
    RandomReader& file, std::uint64_t position, std::uint64_t size, std::uint64_t clock)
{
    constexpr std::uint64_t sectorNumber = 7; // in a packet for the player
    const std::uint64_t header = position + size;
    if (position == 0 || clockOf(file, position) > clock || file.u32be(header) != systemHeader)
        return false;
    const std::uint64_t next = header + unitSize(file, header, systemHeader);
    return file.u32be(next) != privateStream2 || file.u32be(next + sectorNumber) == 0;
}

} // namespace

Found mpegPS(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 0;
    int packets = 0; // of sound and pictures
    std::uint64_t clock = 0;
    bool isFromDVD = false;
    std::uint64_t fill = 0; // behind the last pack that had any
    while (position < limit) {
        const auto code = file.u32be(position);
        const auto size = unitSize(file, position, code);
        if (size == 0) {
            const auto next = packets > 0 ? behindFill(file, position) : std::nullopt;
            if (!next)
                break;
            fill = *next - position;
            position = *next;
            continue;
        }
        if (!candidate.fits(position + size))
            break;
        if (code == pack) {
            if (beginsAnother(file, position, size, clock))
                break;
            clock = clockOf(file, position);
        }
        isFromDVD |= packets == 0 && code == privateStream2;
        packets += code == privateStream1 || (code >= firstSound && code <= lastVideo) ? 1 : 0;
        position += size;
    }
    if (packets < minPackets || position >= limit)
        return std::nullopt;
    if (fill > 0 && ByteView(file.bytes(position, static_cast<std::size_t>(fill))).isAllZero()
        && candidate.fits(position + fill))
        position += fill;
    return candidate.proved(position, isFromDVD ? "vob" : "mpg");
}

} // namespace Formats
