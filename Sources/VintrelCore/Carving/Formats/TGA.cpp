#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Truevision TGA File Format Specification" 2.0: a header without a mark, the picture, and a
// footer with one. Files of version 1 have no footer and are not found.

namespace Formats {

namespace {

struct Header {
    std::uint8_t nameSize;         //  0
    std::uint8_t hasColours;       //  1
    std::uint8_t type;             //  2
    LE16 firstColour, colourCount; //  3, 5
    std::uint8_t colourBits;       //  7
    LE16 x, y, width, height;      //  8, 10, 12, 14
    std::uint8_t bits, flags;      // 16, 17
};
static_assert(sizeof(Header) == 18 && offsetof(Header, bits) == 16);

struct Footer {
    LE32 extensions, developers;       // 0, 4  where these lie; 0 without any
    std::array<std::uint8_t, 18> mark; // 8
};
static_assert(sizeof(Footer) == 26 && offsetof(Footer, mark) == 8);

constexpr std::string_view footerMark { "TRUEVISION-XFILE.\0", 18 };
constexpr std::uint64_t maxExtensions = 65'536; // between the picture and the footer
constexpr std::uint8_t isPacked = 8;

/// The end of packets of equal and of different pixels.
std::uint64_t behindPackets(
    RandomReader& file, std::uint64_t position, std::uint64_t pixels, std::uint64_t pixelSize)
{
    constexpr std::size_t workPerPacket = 64;
    while (pixels > 0 && position < file.size() && !file.isExhausted()) {
        const auto packet = file.u8(position);
        file.addWork(workPerPacket);
        const std::uint64_t count = std::min<std::uint64_t>((packet & 0x7F) + 1u, pixels);
        position += 1 + pixelSize * (packet >= 0x80 ? 1 : count);
        pixels -= count;
    }
    return position;
}

/// Whether the footer at `position` is that of the picture that ends at `end`: with nothing between
/// the two, or with what the footer says.
bool isOwnFooter(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    const auto footer = file.load<Footer>(position);
    const auto lies
        = [&](std::uint32_t offset) { return offset == 0 || (offset >= end && offset < position); };
    const bool hasMore = footer.extensions != 0 || footer.developers != 0;
    return hasMore ? lies(footer.extensions) && lies(footer.developers) : position == end;
}

/// Whether the colours are none at all, or a table of 256 at most that begins with the first one.
bool areColoursSane(const Header& header)
{
    constexpr std::uint16_t maxColours = 256;
    if (header.hasColours == 0)
        return header.firstColour == 0 && header.colourCount == 0 && header.colourBits == 0;
    return header.hasColours == 1 && header.firstColour == 0 && header.colourCount > 0
        && header.colourCount <= maxColours && header.colourBits >= 15 && header.colourBits <= 32;
}

bool isSane(const Header& header)
{
    constexpr std::uint8_t reservedFlags = 0xC0;
    constexpr std::uint16_t maxEdge = 32'767;
    const auto kind = header.type & ~isPacked;
    const bool areBitsKnown = header.bits == 8 || header.bits == 15 || header.bits == 16
        || header.bits == 24 || header.bits == 32;
    return kind >= 1 && kind <= 3 && areBitsKnown && areColoursSane(header)
        && (header.flags & reservedFlags) == 0 && header.width > 0 && header.width <= maxEdge
        && header.height > 0 && header.height <= maxEdge;
}

} // namespace

Found tga(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    if (!isSane(header))
        return std::nullopt;
    const std::uint64_t colours
        = header.hasColours == 1 ? header.colourCount * ((header.colourBits + 7u) / 8) : 0;
    const std::uint64_t start = sizeof header + header.nameSize + colours;
    const std::uint64_t pixels = std::uint64_t { header.width } * header.height;
    const std::uint64_t pixelSize = (header.bits + 7u) / 8;
    const auto end = (header.type & isPacked) != 0 ? behindPackets(file, start, pixels, pixelSize)
                                                   : start + pixels * pixelSize;
    const auto mark = candidate.fits(end)
        ? file.find(footerMark, end + offsetof(Footer, mark), end + maxExtensions)
        : std::nullopt;
    if (!mark || !isOwnFooter(file, *mark - offsetof(Footer, mark), end))
        return std::nullopt;
    return candidate.proved(*mark + footerMark.size(), "tga");
}

} // namespace Formats
