#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Audio Interchange File Format: AIFF" 1.3 (Apple), and AIFF-C.

namespace Formats {

namespace {

/// The chunk that the whole file is.
struct FormChunk {
    std::array<std::uint8_t, 4> id;   // 0  "FORM"
    BE32 size;                        // 4  of what follows it
    std::array<std::uint8_t, 4> type; // 8
};
static_assert(sizeof(FormChunk) == 12 && offsetof(FormChunk, type) == 8);

/// Above that of a form with its common chunk and nothing else.
constexpr std::uint64_t minFormSize = 47;

} // namespace

Found aiff(const Candidate& candidate)
{
    const auto form = candidate.file.load<FormChunk>(0);
    const ByteView type(form.type);
    if ((!type.matches("AIFF", 0) && !type.matches("AIFC", 0)) || form.size < minFormSize)
        return std::nullopt;
    return candidate.found(offsetof(FormChunk, type) + std::uint64_t { form.size }, "aif");
}

} // namespace Formats
