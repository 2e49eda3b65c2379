#include "VintrelCore/Carving/Formats/AudioTags.h"

#include <array>
#include <cstddef>

namespace Formats {

namespace {

/// What an APE tag begins and ends with.
struct APETagHeader {
    std::array<std::uint8_t, 8> preamble; //  0  "APETAGEX"
    LE32 version;                         //  8
    LE32 size;                            // 12  of the items and the footer
    LE32 itemCount;                       // 16
    LE32 flags;                           // 20
    std::array<std::uint8_t, 8> reserved; // 24
};
static_assert(sizeof(APETagHeader) == 32 && offsetof(APETagHeader, size) == 12);

constexpr std::uint32_t maxAPETag = 67'108'864; // pictures included
constexpr std::uint64_t id3v1Size = 128;

} // namespace

std::uint64_t behindAudioTags(RandomReader& file, std::uint64_t position)
{
    const auto tag = file.load<APETagHeader>(position);
    if (ByteView(tag.preamble).matches("APETAGEX", 0) && tag.size >= sizeof tag
        && tag.size <= maxAPETag && sizeof tag + tag.size <= file.size() - position)
        position += sizeof tag + tag.size;
    if (id3v1Size <= file.size() - position && file.matches(position, "TAG"))
        position += id3v1Size;
    return position;
}

} // namespace Formats
