#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// W3C "Portable Network Graphics (PNG) Specification", PNG signature and chunk layout.

namespace Formats {

namespace {

constexpr std::uint64_t maxSize = 1'073'741'824;
constexpr int maxChunks = 1'000'000;
constexpr std::uint32_t maxChunkSize = 0x1FFF'FFFF;

constexpr std::string_view signature = "\x89PNG\r\n\x1A\n";

/// What a chunk begins with. Its data and a checksum follow.
struct Chunk {
    BE32 length;                      // 0  of the data
    std::array<std::uint8_t, 4> type; // 4

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }
};
static_assert(sizeof(Chunk) == 8 && alignof(Chunk) == 1);
constexpr std::uint64_t checksumSize = 4;

bool isLetter(std::uint8_t byte) { return (byte & ~0x20) >= 'A' && (byte & ~0x20) <= 'Z'; }

} // namespace

Found png(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = signature.size();
    if (!file.matches(0, signature) || !file.load<Chunk>(position).is("IHDR"))
        return std::nullopt;
    for (int count = 0;
         count <= maxChunks && position < maxSize && candidate.fits(position + sizeof(Chunk));
         ++count) {
        const auto chunk = file.load<Chunk>(position);
        if (chunk.length > maxChunkSize || !std::ranges::all_of(chunk.type, isLetter))
            return std::nullopt;
        position += sizeof(Chunk) + chunk.length + checksumSize;
        if (chunk.is("IEND"))
            return candidate.proved(position, "png");
    }
    return std::nullopt;
}

} // namespace Formats
