#include "VintrelCore/Carving/Formats/Formats.h"

namespace Formats {

namespace {

constexpr std::uint64_t limit = 104'857'600;

/// The size of the colour table that a flag byte announces.
std::uint64_t colourTableSize(std::uint8_t flags)
{
    return (flags & 0x80) != 0 ? std::uint64_t { 3 } << ((flags & 7) + 1) : 0;
}

/// The position behind a chain of data sub-blocks: each a length byte and that many bytes, the last
/// one empty.
std::uint64_t behindSubBlocks(RandomReader& file, std::uint64_t position)
{
    while (position < limit && position < file.size()) {
        const std::uint64_t length = file.u8(position);
        position += 1 + length;
        if (length == 0)
            break;
    }
    return position;
}

} // namespace

Found gif(const Candidate& candidate)
{
    constexpr std::uint64_t headerSize = 13;
    constexpr std::uint64_t imageDescriptorSize = 10;
    auto& file = candidate.file;
    if (!file.matches(0, "GIF87a") && !file.matches(0, "GIF89a"))
        return std::nullopt;
    std::uint64_t position = headerSize + colourTableSize(file.u8(10));
    while (position < limit && candidate.fits(position + 1)) {
        switch (file.u8(position)) {
        case '!': // an extension: its label, then its data
            position = behindSubBlocks(file, position + 2);
            break;
        case ',': // an image: its descriptor, colours, code size, then its data
            position += imageDescriptorSize
                + colourTableSize(file.u8(position + imageDescriptorSize - 1)) + 1;
            position = behindSubBlocks(file, position);
            break;
        case ';':
            return candidate.found(position + 1, "gif");
        default:
            return std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace Formats
