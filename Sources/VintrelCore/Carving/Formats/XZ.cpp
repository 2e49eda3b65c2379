#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/SevenBits.h"
#include "VintrelCore/Foundation/CRC32.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <cstddef>

// "The .xz File Format" 1.0.4: blocks of LZMA2 chunks that say their lengths, an index and a
// footer.

namespace Formats {

namespace {

struct StreamHeader {
    std::array<std::uint8_t, 6> magic; // 0  FD "7zXZ" 0
    std::array<std::uint8_t, 2> flags; // 6  the kind of check
    LE32 checksum;                     // 8  of the flags
};
static_assert(sizeof(StreamHeader) == 12);

struct StreamFooter {
    LE32 checksum;                     //  0  of the next two
    LE32 indexUnits;                   //  4  size of the index in units of four bytes, less one
    std::array<std::uint8_t, 2> flags; //  8  as in the header
    std::array<std::uint8_t, 2> magic; // 10  "YZ"
};
static_assert(sizeof(StreamFooter) == 12 && offsetof(StreamFooter, flags) == 8);

constexpr std::string_view magic { "\xFD\x37zXZ\0", 6 };
constexpr std::uint64_t unit = 4;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr std::uint64_t maxBlocks = 100'000'000;

std::uint64_t aligned(std::uint64_t size) { return unitsFor(size, unit) * unit; }

std::uint64_t checkSize(std::uint8_t kind)
{
    constexpr std::array<std::uint8_t, 16> sizes { 0, 4, 4, 4, 8, 8, 8, 16, 16, 16, 32, 32, 32, 64,
        64, 64 };
    return sizes[kind & 0xF];
}

std::uint32_t checksumOf(ByteView bytes)
{
    CRC32 checksum;
    checksum.add(bytes);
    return checksum.value();
}

/// The length of the LZMA2 chunk at `position`; 0 when it is malformed.
std::uint64_t chunkSize(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint8_t lastPlain = 2;
    constexpr std::uint8_t firstPacked = 0x80;
    constexpr std::uint8_t firstWithProperties = 0xC0;
    const auto control = file.u8(position);
    if (control >= firstPacked)
        return (control >= firstWithProperties ? 6u : 5u) + file.u16be(position + 3) + 1u;
    return control <= lastPlain ? 3u + file.u16be(position + 1) + 1u : 0;
}

/// Where the chunks from `position` on end; none when they do not.
std::optional<std::uint64_t> behindChunks(RandomReader& file, std::uint64_t position)
{
    while (position < limit && position < file.size()) {
        if (file.u8(position) == 0)
            return position + 1;
        const auto size = chunkSize(file, position);
        if (size == 0)
            break;
        position += size;
    }
    return std::nullopt;
}

/// Where the block at `position` ends, its check included; none when it is malformed.
std::optional<std::uint64_t> behindBlock(
    RandomReader& file, std::uint64_t position, std::uint8_t check)
{
    const std::size_t size = (file.u8(position) + std::size_t { 1 }) * unit;
    const auto header = file.bytes(position, size);
    const ByteView view(header);
    const auto checked = static_cast<std::int64_t>(size - sizeof(LE32));
    if (view.u32le(checked) != checksumOf(view.sub(0, checked)))
        return std::nullopt;
    const auto end = behindChunks(file, position + size);
    return end ? std::optional(position + aligned(*end - position) + checkSize(check))
               : std::nullopt;
}

/// Passes over a number of seven bits a byte; returns it.
std::uint64_t readNumber(RandomReader& file, std::uint64_t& position)
{
    return readSevenBits([&] { return file.u8(position++); }).value;
}

/// The length of the index at `position`, which must list `blocks`; 0 when it does not.
std::uint64_t indexSize(RandomReader& file, std::uint64_t position, std::uint64_t blocks)
{
    const std::uint64_t start = position++;
    if (readNumber(file, position) != blocks)
        return 0;
    for (std::uint64_t i = 0; i < 2 * blocks && !file.isExhausted(); ++i)
        readNumber(file, position);
    return aligned(position - start) + sizeof(LE32);
}

/// Where the stream at `position` ends; none when it is malformed.
std::optional<std::uint64_t> behindStream(RandomReader& file, std::uint64_t position)
{
    const auto header = file.load<StreamHeader>(position);
    if (!ByteView(header.magic).matches(magic, 0)
        || header.checksum != checksumOf(ByteView(header.flags)))
        return std::nullopt;
    position += sizeof header;
    std::uint64_t blocks = 0;
    for (; blocks < maxBlocks && file.u8(position) != 0; ++blocks) {
        const auto end = behindBlock(file, position, header.flags[1]);
        if (!end)
            return std::nullopt;
        position = *end;
    }
    const auto index = indexSize(file, position, blocks);
    const auto footer = file.load<StreamFooter>(position + index);
    const bool isSound = index != 0 && footer.flags == header.flags
        && ByteView(footer.magic).matches("YZ", 0)
        && (std::uint64_t { footer.indexUnits } + 1) * unit == index;
    return isSound ? std::optional(position + index + sizeof footer) : std::nullopt;
}

} // namespace

Found xz(const Candidate& candidate)
{
    std::uint64_t end = 0;
    for (std::uint64_t streams = 0; mayJoin(end, streams); ++streams) {
        const auto next = behindStream(candidate.file, end);
        if (!next)
            break;
        end = *next;
    }
    return end > 0 && candidate.fits(end) ? Found(candidate.proved(end, "xz")) : std::nullopt;
}

} // namespace Formats
