#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <bit>

// The format of bzip2, which no standard describes: blocks that begin at any bit with a mark and a
// checksum, and an end mark with the checksum of all of them.

namespace Formats {

namespace {

constexpr std::uint64_t blockMark = 0x3141'5926'5359;
constexpr std::uint64_t endMark = 0x1772'4538'5090;
constexpr std::uint64_t markBits = 48;
constexpr std::uint64_t markMask = (std::uint64_t { 1 } << markBits) - 1;
constexpr std::uint64_t headerSize = 4;             // "BZh" and the block size
constexpr std::uint64_t maxPackedBlock = 2'097'152; // of 900,000 bytes that do not pack at all
constexpr std::size_t pieceSize = 65'536;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;

/// The values that the byte before the last one takes when a mark has just ended, in any of eight
/// places: all others need no closer look.
constexpr auto mayEndMark = [] {
    std::array<bool, 256> may {};
    for (const auto mark : { blockMark, endMark })
        for (unsigned shift = 0; shift < 8; ++shift)
            may[mark >> (8 - shift) & 0xFF] = true;
    return may;
}();

struct Mark {
    std::uint64_t endBit; ///< behind it, from the file's first bit
    bool isEnd;           ///< whether it ends the stream
};

/// The mark that ends within the last byte of `window`, which is byte `position` of the file.
std::optional<Mark> markIn(std::uint64_t window, std::uint64_t position)
{
    for (unsigned shift = 0; shift < 8; ++shift) {
        const auto bits = window >> shift & markMask;
        if (bits == blockMark || bits == endMark)
            return Mark { (position + 1) * 8 - shift, bits == endMark };
    }
    return std::nullopt;
}

/// The next mark that ends at or behind byte `position`; none within the length of a block.
std::optional<Mark> nextMark(RandomReader& file, std::uint64_t position)
{
    const std::uint64_t end = position + maxPackedBlock;
    std::uint64_t window = 0;
    while (position < end) {
        auto bytes = file.stretch(position).span();
        bytes = bytes.first(std::min(bytes.size(), pieceSize));
        if (bytes.empty())
            break;
        file.addWork(bytes.size() * 2);
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            window = window << 8 | bytes[i];
            if (!mayEndMark[window >> 8 & 0xFF])
                continue;
            if (const auto mark = markIn(window, position + i))
                return mark;
        }
        position += bytes.size();
    }
    return std::nullopt;
}

/// The 32 bits from this bit on.
std::uint32_t bitsAt(RandomReader& file, std::uint64_t bit)
{
    return static_cast<std::uint32_t>(file.u64be(bit / 8) << bit % 8 >> 32);
}

/// Where the stream that begins at `start` ends; none when its blocks do not add up to its
/// checksum.
std::optional<std::uint64_t> endOfStream(RandomReader& file, std::uint64_t start)
{
    const auto level = file.u8(start + headerSize - 1);
    const auto first = file.u64be(start + headerSize) >> 16;
    if (!file.matches(start, "BZh") || level < '1' || level > '9'
        || (first != blockMark && first != endMark))
        return std::nullopt;
    std::uint32_t checksum = 0;
    std::uint64_t position = start + headerSize;
    while (position < limit) {
        const auto mark = nextMark(file, position);
        if (!mark)
            break;
        const auto stated = bitsAt(file, mark->endBit);
        const std::uint64_t end = mark->endBit + 32;
        if (mark->isEnd)
            return stated == checksum ? std::optional((end + 7) / 8) : std::nullopt;
        checksum = std::rotl(checksum, 1) ^ stated;
        position = end / 8;
    }
    return std::nullopt;
}

} // namespace

Found bzip2(const Candidate& candidate)
{
    std::uint64_t end = 0;
    for (std::uint64_t streams = 0; mayJoin(end, streams); ++streams) {
        const auto next = endOfStream(candidate.file, end);
        if (!next)
            break;
        end = *next;
    }
    return end > 0 && candidate.fits(end) ? Found(candidate.proved(end, "bz2")) : std::nullopt;
}

} // namespace Formats
