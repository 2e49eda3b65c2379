#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Apple Core Audio Format Specification 1.0": a header, then chunks.

namespace Formats {

namespace {

struct FileHeader {
    std::array<std::uint8_t, 4> type; // 0  "caff"
    BE16 version, flags;              // 4, 6
};
static_assert(sizeof(FileHeader) == 8);

struct ChunkHeader {
    std::array<std::uint8_t, 4> type; // 0
    BE64 size;                        // 4  of what follows; all ones for sound without an end

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }
};
static_assert(sizeof(ChunkHeader) == 12 && offsetof(ChunkHeader, size) == 4);

constexpr int maxChunks = 10'000;

/// The chunks that the document names. What else lies behind the last one is another file's.
bool isKnown(const ChunkHeader& chunk)
{
    constexpr std::string_view names[] = { "desc", "data", "pakt", "chan", "kuki", "strg", "mark",
        "regn", "inst", "midi", "ovvw", "peak", "edct", "umid", "info", "uuid", "free", "ldat" };
    return std::ranges::any_of(names, [&](std::string_view name) { return chunk.is(name); });
}

} // namespace

Found caf(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<FileHeader>(0);
    if (header.version != 1 || header.flags != 0
        || !file.load<ChunkHeader>(sizeof header).is("desc"))
        return std::nullopt;
    std::uint64_t position = sizeof header;
    bool hasSound = false;
    bool endsInSound = false;
    for (int count = 0; count < maxChunks && position < file.size(); ++count) {
        const auto chunk = file.load<ChunkHeader>(position);
        const std::uint64_t room = file.size() - position;
        if (!isKnown(chunk) || room < sizeof chunk || chunk.size > room - sizeof chunk)
            break;
        endsInSound = chunk.is("data");
        hasSound |= endsInSound;
        position += sizeof chunk + chunk.size;
    }
    if (!hasSound)
        return std::nullopt;
    auto found = candidate.found(position, "caf");
    found.isProved = !endsInSound; // whatever lies in the sound's place now would do
    return found;
}

} // namespace Formats
