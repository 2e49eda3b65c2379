#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// Blender's files: a header that tells the width of pointers and the byte order, then blocks that
// say their lengths, up to one that is called "ENDB". Files that Blender packed are GZ or ZST.

namespace Formats {

namespace {

constexpr std::uint64_t headerSize = 12; // "BLENDER", "_" or "-", "v" or "V", three digits
constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr int maxBlocks = 100'000'000;

bool isCodeByte(std::uint8_t byte)
{
    return byte == 0 || (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z');
}

} // namespace

Found blend(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto pointer = file.u8(7);
    const auto order = file.u8(8);
    if (!file.matches(0, "BLENDER") || (pointer != '_' && pointer != '-')
        || (order != 'v' && order != 'V'))
        return std::nullopt;
    // Code, size, the pointer that it had, number of its structure, count.
    const std::uint64_t blockHeader = 16 + (pointer == '-' ? 8 : 4);
    std::uint64_t position = headerSize;
    for (int count = 0; count < maxBlocks && position < limit; ++count) {
        const auto code = file.load<std::array<std::uint8_t, 4>>(position);
        const auto size = order == 'v' ? file.u32le(position + 4) : file.u32be(position + 4);
        if (!std::ranges::all_of(code, isCodeByte) || code[0] == 0)
            break;
        position += blockHeader + size;
        if (!candidate.fits(position))
            break;
        if (ByteView(code).matches("ENDB", 0))
            return candidate.proved(position, "blend");
    }
    return std::nullopt;
}

} // namespace Formats
