#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>

namespace Formats {

namespace {

constexpr std::uint64_t maxSize = 1'073'741'824;
constexpr int maxChunks = 1'000'000;
constexpr std::uint32_t maxChunkSize = 0x1FFF'FFFF;

struct Chunk {
    BE32 length;
    std::array<std::uint8_t, 4> type;
};
static_assert(sizeof(Chunk) == 8 && alignof(Chunk) == 1);
constexpr std::uint64_t checksumSize = 4;

bool isLetter(std::uint8_t byte) { return (byte & ~0x20) >= 'A' && (byte & ~0x20) <= 'Z'; }

} // namespace

Found png(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (!file.matches(0, "\x89PNG\r\n\x1A\n") || !file.matches(12, "IHDR"))
        return std::nullopt;
    std::uint64_t position = 8;
    for (int count = 0;
         count <= maxChunks && position < maxSize && candidate.fits(position + sizeof(Chunk));
         ++count) {
        const auto chunk = file.load<Chunk>(position);
        if (chunk.length > maxChunkSize || !std::ranges::all_of(chunk.type, isLetter))
            return std::nullopt;
        position += sizeof(Chunk) + chunk.length + checksumSize;
        if (ByteView(chunk.type).matches("IEND", 0))
            return candidate.found(position, "png");
    }
    return std::nullopt;
}

} // namespace Formats
