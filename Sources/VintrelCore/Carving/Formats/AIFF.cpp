#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Audio Interchange File Format: AIFF" 1.3 (Apple), and AIFF-C.

namespace Formats {

namespace {

/// The chunk that the whole file is. Those inside it begin the same way.
struct FormChunk {
    std::array<std::uint8_t, 4> id;   // 0  "FORM"
    BE32 size;                        // 4  of what follows it
    std::array<std::uint8_t, 4> type; // 8
};
static_assert(sizeof(FormChunk) == 12 && offsetof(FormChunk, type) == 8);
constexpr std::uint64_t headerSize = offsetof(FormChunk, type); // of every chunk

/// Above that of a form with its common chunk and nothing else.
constexpr std::uint64_t minFormSize = 47;
constexpr int maxChunks = 10'000;

/// Whether the chunks fill the file to its end, and the last one has a structure of its own: the
/// sound has none, and whatever lies there now would do.
bool isProved(RandomReader& file, std::uint64_t size)
{
    bool endsInSound = true;
    std::uint64_t position = sizeof(FormChunk);
    for (int count = 0; count < maxChunks && position + headerSize <= size; ++count) {
        const auto chunk = file.load<FormChunk>(position);
        const std::uint64_t length = chunk.size;
        endsInSound = ByteView(chunk.id).matches("SSND", 0);
        position += headerSize + length + length % 2;
    }
    return position == size && !endsInSound;
}

} // namespace

Found aiff(const Candidate& candidate)
{
    const auto form = candidate.file.load<FormChunk>(0);
    const ByteView type(form.type);
    if ((!type.matches("AIFF", 0) && !type.matches("AIFC", 0)) || form.size < minFormSize)
        return std::nullopt;
    auto found = candidate.found(headerSize + std::uint64_t { form.size }, "aif");
    found.isProved = candidate.fits(found.size) && isProved(candidate.file, found.size);
    return found;
}

} // namespace Formats
