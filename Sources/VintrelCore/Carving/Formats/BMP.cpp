#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <cstddef>

// Windows bitmaps: BITMAPFILEHEADER and the beginning of the header behind it (Microsoft, Windows
// GDI).

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 2> magic; //  0
    LE32 fileSize;                     //  2
    LE32 reserved;                     //  6
    LE32 pixelOffset;                  // 10
    LE32 headerSize;                   // 14  tells which version of the header follows
    LE32 width;                        // 18
    LE32 height;                       // 22  negative: the rows go downwards
    LE16 planes;                       // 26
    LE16 bitsPerPixel;                 // 28
    LE32 compression;                  // 30  0: none
};
static_assert(sizeof(Header) == 34 && offsetof(Header, width) == 18);

constexpr std::array<std::uint32_t, 6> headerSizes { 12, 40, 52, 56, 108, 124 };
constexpr std::uint32_t minSize = 64;
constexpr std::uint32_t maxSize = 536'870'912;
constexpr std::uint32_t minPixelOffset = 26;

/// Whether the rows fill the file as its fields say, and each ends with the zeros that fill it up
/// to four bytes. Where rows need none, nothing tells pixels from anything else.
bool isProved(RandomReader& file, const Header& header)
{
    constexpr std::uint64_t rowUnit = 4;
    constexpr std::uint32_t coreHeaderSize = 12; // its fields are narrower
    const auto signedHeight
        = static_cast<std::int64_t>(static_cast<std::int32_t>(std::uint32_t { header.height }));
    const auto height = static_cast<std::uint64_t>(signedHeight < 0 ? -signedHeight : signedHeight);
    const std::uint64_t used = unitsFor(std::uint64_t { header.width } * header.bitsPerPixel, 8);
    const std::uint64_t row = unitsFor(used, rowUnit) * rowUnit;
    if (header.headerSize == coreHeaderSize || header.compression != 0 || row == used
        || saturatingMultiply(row, height) != header.fileSize - header.pixelOffset)
        return false;
    for (std::uint64_t line = 0; line < height && !file.isExhausted(); ++line)
        for (std::uint64_t at = used; at < row; ++at)
            if (file.u8(header.pixelOffset + line * row + at) != 0)
                return false;
    return true;
}

} // namespace

Found bmp(const Candidate& candidate)
{
    const auto header = candidate.file.load<Header>(0);
    if (header.reserved != 0 || header.fileSize < minSize || header.fileSize > maxSize
        || header.pixelOffset < minPixelOffset || header.pixelOffset >= header.fileSize
        || header.width == 0
        || std::ranges::count(headerSizes, std::uint32_t { header.headerSize }) == 0)
        return std::nullopt;
    auto found = candidate.found(header.fileSize, "bmp");
    found.isProved = candidate.fits(found.size) && isProved(candidate.file, header);
    return found;
}

} // namespace Formats
