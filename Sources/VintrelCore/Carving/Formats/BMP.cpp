#include "VintrelCore/Carving/Formats/Formats.h"

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
};
static_assert(sizeof(Header) == 22 && offsetof(Header, width) == 18);

constexpr std::array<std::uint32_t, 6> headerSizes { 12, 40, 52, 56, 108, 124 };
constexpr std::uint32_t minSize = 64;
constexpr std::uint32_t maxSize = 536'870'912;
constexpr std::uint32_t minPixelOffset = 26;

} // namespace

Found bmp(const Candidate& candidate)
{
    const auto header = candidate.file.load<Header>(0);
    if (header.reserved != 0 || header.fileSize < minSize || header.fileSize > maxSize
        || header.pixelOffset < minPixelOffset || header.pixelOffset >= header.fileSize
        || header.width == 0
        || std::ranges::count(headerSizes, std::uint32_t { header.headerSize }) == 0)
        return std::nullopt;
    return candidate.found(header.fileSize, "bmp");
}

} // namespace Formats
