#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Multimedia Programming Interface and Data Specifications 1.0" (IBM, Microsoft), Resource
// Interchange File Format.

namespace Formats {

namespace {

/// The chunk that the whole file is.
struct RIFFChunk {
    std::array<std::uint8_t, 4> id;   // 0  "RIFF"
    LE32 size;                        // 4  of what follows it
    std::array<std::uint8_t, 4> form; // 8
};
static_assert(sizeof(RIFFChunk) == 12 && offsetof(RIFFChunk, form) == 8);

constexpr std::uint64_t minSize = 44; // a wave file without a sample

constexpr struct {
    std::string_view form;
    const char* ext;
} forms[] = { { "WAVE", "wav" }, { "AVI ", "avi" }, { "WEBP", "webp" } };

} // namespace

Found riff(const Candidate& candidate)
{
    const auto chunk = candidate.file.load<RIFFChunk>(0);
    const std::uint64_t length = chunk.size;
    // Chunks are padded to an even length.
    const std::uint64_t size = offsetof(RIFFChunk, form) + length + length % 2;
    if (size < minSize)
        return std::nullopt;
    for (const auto& [form, ext] : forms)
        if (ByteView(chunk.form).matches(form, 0))
            return candidate.found(size, ext);
    return std::nullopt;
}

} // namespace Formats
