#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// Blender's files: a header that tells the width of pointers and the byte order, then blocks that
// say their lengths, up to one that is called "ENDB". From version 5 on the header also says its
// own length, and the blocks have wider numbers in another order. Files that Blender packed are GZ
// or ZST.

namespace Formats {

namespace {

constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr int maxBlocks = 100'000'000;

/// What the header tells of the file.
struct Layout {
    std::uint64_t headerSize;
    std::uint64_t blockHeader; ///< its size: code, size, old pointer, structure, count
    std::uint64_t sizeAt;      ///< in it
    bool isWide;               ///< whether the size has eight bytes
    bool isLittle;
};

/// What the header tells; none when it is none.
std::optional<Layout> layoutOf(RandomReader& file)
{
    if (file.matches(0, "BLENDER17-01v"))
        return Layout { 17, 32, 16, true, true };
    const auto pointer = file.u8(7);
    const auto order = file.u8(8);
    if (!file.matches(0, "BLENDER") || (pointer != '_' && pointer != '-')
        || (order != 'v' && order != 'V'))
        return std::nullopt;
    return Layout { 12, pointer == '-' ? 24U : 20U, 4, false, order == 'v' };
}

std::uint64_t sizeOfBlock(RandomReader& file, std::uint64_t position, const Layout& layout)
{
    const auto at = position + layout.sizeAt;
    if (layout.isWide)
        return file.u64le(at);
    return layout.isLittle ? file.u32le(at) : file.u32be(at);
}

bool isCodeByte(std::uint8_t byte)
{
    return byte == 0 || (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z');
}

} // namespace

Found blend(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto layout = layoutOf(file);
    if (!layout)
        return std::nullopt;
    std::uint64_t position = layout->headerSize;
    for (int count = 0; count < maxBlocks && position < limit; ++count) {
        const auto code = file.load<std::array<std::uint8_t, 4>>(position);
        const auto size = sizeOfBlock(file, position, *layout);
        if (!std::ranges::all_of(code, isCodeByte) || code[0] == 0 || size > limit)
            break;
        position += layout->blockHeader + size;
        if (!candidate.fits(position))
            break;
        if (ByteView(code).matches("ENDB", 0))
            return candidate.proved(position, "blend");
    }
    return std::nullopt;
}

} // namespace Formats
