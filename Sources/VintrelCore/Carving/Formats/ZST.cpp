#include "VintrelCore/Carving/Formats/Formats.h"

// RFC 8878, Zstandard Compression: frames of blocks that say their lengths.

namespace Formats {

namespace {

constexpr std::uint32_t frameMagic = 0xFD2F'B528;
constexpr std::uint32_t skippableMagic = 0x184D'2A50; // the last four bits are free
constexpr std::uint64_t magicSize = 4;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr std::uint64_t maxBlockSize = 131'072;

/// Where the blocks of the frame at `position` begin; none when a reserved bit is set.
std::optional<std::uint64_t> behindHeader(RandomReader& file, std::uint64_t position)
{
    constexpr std::array<std::uint8_t, 4> dictionarySizes { 0, 1, 2, 4 };
    constexpr std::array<std::uint8_t, 4> contentSizes { 0, 2, 4, 8 };
    const auto descriptor = file.u8(position + magicSize);
    const bool isOneSegment = (descriptor & 0x20) != 0;
    if ((descriptor & 0x08) != 0)
        return std::nullopt;
    const unsigned contentCode = descriptor >> 6;
    const std::uint64_t contentSize
        = contentCode == 0 && isOneSegment ? 1 : contentSizes[contentCode];
    const std::uint64_t windowSize = isOneSegment ? 0 : 1;
    return position + magicSize + 1 + windowSize + dictionarySizes[descriptor & 3] + contentSize;
}

/// Where the blocks from `position` on end; none when they do not.
std::optional<std::uint64_t> behindBlocks(RandomReader& file, std::uint64_t position)
{
    enum Type : std::uint32_t { raw = 0, repeated = 1, packed = 2, reserved = 3 };
    constexpr std::uint64_t headerSize = 3;
    while (position < limit && position < file.size()) {
        const std::uint32_t header = file.u32le(position) & 0xFF'FFFF;
        const bool isLast = (header & 1) != 0;
        const std::uint32_t type = header >> 1 & 3;
        const std::uint64_t size = header >> 3;
        if (type == reserved || size > maxBlockSize || (size == 0 && !isLast))
            break;
        position += headerSize + (type == repeated ? 1 : size);
        if (isLast)
            return position;
    }
    return std::nullopt;
}

/// Where the frame at `position` ends; none when none begins there.
std::optional<std::uint64_t> behindFrame(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint8_t hasChecksum = 0x04;
    constexpr std::uint64_t checksumSize = 4;
    const auto magic = file.u32le(position);
    if ((magic & ~0xFU) == skippableMagic)
        return position + 2 * magicSize + file.u32le(position + magicSize);
    const auto blocks = magic == frameMagic ? behindHeader(file, position) : std::nullopt;
    const auto end = blocks ? behindBlocks(file, *blocks) : std::nullopt;
    if (!end)
        return std::nullopt;
    return *end + ((file.u8(position + magicSize) & hasChecksum) != 0 ? checksumSize : 0);
}

} // namespace

Found zstandard(const Candidate& candidate)
{
    std::uint64_t end = 0;
    bool hasContent = false;
    for (std::uint64_t frames = 0; end < limit && mayJoin(end, frames); ++frames) {
        const auto next = behindFrame(candidate.file, end);
        if (!next || !candidate.fits(*next))
            break;
        hasContent |= candidate.file.u32le(end) == frameMagic;
        end = *next;
    }
    // One foreign block in fifty would end a frame as well, so that this is no proof.
    return hasContent ? Found(candidate.found(end, "zst")) : std::nullopt;
}

} // namespace Formats
