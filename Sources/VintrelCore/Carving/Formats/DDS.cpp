#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "DDS" (Microsoft, Programming Guide for DDS): a header, and surfaces whose sizes follow from it.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> magic;     //   0  "DDS "
    LE32 size, flags, height, width;       //   4, 8, 12, 16
    LE32 pitch, depth, levels;             //  20, 24, 28
    std::array<std::uint8_t, 44> reserved; //  32
    LE32 formatSize, formatFlags;          //  76, 80
    std::array<std::uint8_t, 4> fourCC;    //  84
    LE32 bits;                             //  88  of a pixel
    std::array<std::uint8_t, 16> masks;    //  92
    LE32 caps, caps2;                      // 108, 112
    std::array<std::uint8_t, 12> others;   // 116
};
static_assert(sizeof(Header) == 128 && offsetof(Header, fourCC) == 84);

constexpr std::uint32_t maxEdge = 65'536;
constexpr std::uint32_t maxLevels = 17;

/// How a surface is stored: in blocks of pixels, or each pixel for itself.
struct Storage {
    std::uint64_t blockEdge;
    std::uint64_t blockBits;
};

std::optional<Storage> storageOf(const Header& header)
{
    constexpr std::uint32_t hasFourCC = 4;
    constexpr struct {
        std::string_view name;
        std::uint64_t blockBits;
    } packed[] = { { "DXT1", 64 }, { "DXT2", 128 }, { "DXT3", 128 }, { "DXT4", 128 },
        { "DXT5", 128 }, { "ATI1", 64 }, { "BC4U", 64 }, { "BC4S", 64 }, { "ATI2", 128 },
        { "BC5U", 128 }, { "BC5S", 128 } };
    if ((header.formatFlags & hasFourCC) == 0)
        return header.bits % 8 == 0 && header.bits > 0 && header.bits <= 128
            ? std::optional(Storage { 1, header.bits })
            : std::nullopt;
    const ByteView name(header.fourCC);
    const auto* const row = std::ranges::find_if(
        packed, [&](const auto& format) { return name.matches(format.name, 0); });
    return row != std::end(packed) ? std::optional(Storage { 4, row->blockBits }) : std::nullopt;
}

/// The size of a surface with its smaller levels.
std::uint64_t surfaceSize(const Header& header, const Storage& storage)
{
    const std::uint32_t levels = std::clamp<std::uint32_t>(header.levels, 1, maxLevels);
    std::uint64_t width = header.width;
    std::uint64_t height = header.height;
    std::uint64_t size = 0;
    for (std::uint32_t level = 0; level < levels; ++level) {
        const std::uint64_t columns = (width + storage.blockEdge - 1) / storage.blockEdge;
        const std::uint64_t rows = (height + storage.blockEdge - 1) / storage.blockEdge;
        size += columns * rows * storage.blockBits / 8;
        width = std::max<std::uint64_t>(width / 2, 1);
        height = std::max<std::uint64_t>(height / 2, 1);
    }
    return size;
}

} // namespace

Found dds(const Candidate& candidate)
{
    constexpr std::uint32_t headerSize = 124;
    constexpr std::uint32_t formatSize = 32;
    constexpr std::uint32_t isVolume = 0x20'0000;
    constexpr std::uint32_t isCube = 0x200;
    constexpr std::uint64_t cubeFaces = 6;
    const auto header = candidate.file.load<Header>(0);
    const auto storage = storageOf(header);
    if (header.size != headerSize || header.formatSize != formatSize || !storage
        || header.width == 0 || header.width > maxEdge || header.height == 0
        || header.height > maxEdge || header.levels > maxLevels || (header.caps2 & isVolume) != 0)
        return std::nullopt;
    const std::uint64_t faces = (header.caps2 & isCube) != 0 ? cubeFaces : 1;
    return candidate.found(sizeof header + faces * surfaceSize(header, *storage), "dds");
}

} // namespace Formats
