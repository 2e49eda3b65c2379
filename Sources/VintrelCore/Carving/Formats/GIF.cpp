#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Graphics Interchange Format, Version 89a" (CompuServe).

namespace Formats {

namespace {

constexpr std::uint64_t limit = 104'857'600;

/// Header and Logical Screen Descriptor.
struct Header {
    std::array<std::uint8_t, 6> signature; //  0
    LE16 width, height;                    //  6, 8
    std::uint8_t flags;                    // 10
    std::uint8_t background, aspectRatio;  // 11, 12
};
static_assert(sizeof(Header) == 13 && offsetof(Header, flags) == 10);

struct ImageDescriptor {
    std::uint8_t separator;        // 0
    LE16 left, top, width, height; // 1, 3, 5, 7
    std::uint8_t flags;            // 9
};
static_assert(sizeof(ImageDescriptor) == 10 && offsetof(ImageDescriptor, flags) == 9);

enum Introducer : std::uint8_t { extension = '!', image = ',', trailer = ';' };
constexpr std::uint64_t extensionHeaderSize = 2; // the introducer and a label
constexpr std::uint64_t codeSizeLength = 1;      // in front of the data of an image

constexpr std::uint8_t hasColourTable = 0x80;

/// The size of the colour table that a flag byte announces.
std::uint64_t colourTableSize(std::uint8_t flags)
{
    return (flags & hasColourTable) != 0 ? std::uint64_t { 3 } << ((flags & 7) + 1) : 0;
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
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    const ByteView signature(header.signature);
    if (!signature.matches("GIF87a", 0) && !signature.matches("GIF89a", 0))
        return std::nullopt;
    std::uint64_t position = sizeof header + colourTableSize(header.flags);
    while (position < limit && candidate.fits(position + 1)) {
        switch (file.u8(position)) {
        case extension:
            position = behindSubBlocks(file, position + extensionHeaderSize);
            break;
        case image: {
            const auto descriptor = file.load<ImageDescriptor>(position);
            position += sizeof descriptor + colourTableSize(descriptor.flags) + codeSizeLength;
            position = behindSubBlocks(file, position);
            break;
        }
        case trailer:
            return candidate.proved(position + 1, "gif");
        default:
            return std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace Formats
