#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "DjVu Reference" version 3, chunks in the manner of IFF behind four bytes of its own.

namespace Formats {

namespace {

struct FormChunk {
    std::array<std::uint8_t, 8> id;   //  0  "AT&TFORM"
    BE32 size;                        //  8  of what follows
    std::array<std::uint8_t, 4> type; // 12
};
static_assert(sizeof(FormChunk) == 16 && offsetof(FormChunk, type) == 12);

struct ChunkHeader {
    std::array<std::uint8_t, 4> id; // 0
    BE32 size;                      // 4
};
static_assert(sizeof(ChunkHeader) == 8);

constexpr int maxChunks = 1'000'000;

/// Whether chunks, each padded to an even length, fill the file from `position` to its end.
bool isFilled(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    for (int count = 0; count < maxChunks && position < end; ++count) {
        const auto chunk = file.load<ChunkHeader>(position);
        const bool isNamed = std::ranges::all_of(
            chunk.id, [](std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; });
        if (!isNamed || chunk.size > end - position)
            return false;
        position += sizeof chunk + chunk.size;
        position += position < end ? position % 2 : 0;
    }
    return position == end;
}

} // namespace

Found djvu(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto form = file.load<FormChunk>(0);
    const ByteView type(form.type);
    if (!ByteView(form.id).matches("AT&TFORM", 0)
        || (!type.matches("DJVU", 0) && !type.matches("DJVM", 0)))
        return std::nullopt;
    const std::uint64_t size = offsetof(FormChunk, type) + form.size;
    auto found = candidate.found(size, "djvu");
    found.isProved = candidate.fits(size) && isFilled(file, sizeof form, size);
    return found;
}

} // namespace Formats
