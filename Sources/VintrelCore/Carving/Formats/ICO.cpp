#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// Icons of Windows ("Icons", Microsoft): a directory of pictures, each a bitmap without the header
// of its file, or a PNG.

namespace Formats {

namespace {

struct Entry {
    std::uint8_t width, height;     //  0, 1  0: 256
    std::uint8_t colours, reserved; //  2, 3
    LE16 planes, bits;              //  4, 6
    LE32 size, offset;              //  8, 12
};
static_assert(sizeof(Entry) == 16);

constexpr std::uint64_t headerSize = 6;
constexpr unsigned maxPictures = 64;
constexpr std::uint32_t maxPictureSize = 4'194'304;

/// Whether the picture of an entry begins where it says.
bool isPicture(RandomReader& file, const Entry& entry)
{
    constexpr std::uint32_t bitmapHeader = 40;
    constexpr std::uint64_t height = 8;
    if (file.matches(entry.offset, "\x89PNG"))
        return true;
    const std::uint32_t wanted = entry.height == 0 ? 256 : entry.height;
    return file.u32le(entry.offset) == bitmapHeader
        && file.u32le(std::uint64_t { entry.offset } + height) == 2 * wanted; // with its mask
}

bool isSane(const Entry& entry, std::uint64_t directoryEnd)
{
    return entry.reserved == 0 && entry.planes <= 1 && entry.bits <= 32
        && entry.offset >= directoryEnd && entry.size > 0 && entry.size <= maxPictureSize
        && entry.offset <= maxPictures * maxPictureSize;
}

} // namespace

Found ico(const Candidate& candidate)
{
    auto& file = candidate.file;
    const unsigned count = file.u16le(headerSize - sizeof(LE16));
    if (count == 0 || count > maxPictures)
        return std::nullopt;
    const std::uint64_t directoryEnd = headerSize + count * sizeof(Entry);
    std::uint64_t end = 0;
    for (unsigned i = 0; i < count; ++i) {
        const auto entry = file.load<Entry>(headerSize + i * sizeof(Entry));
        if (!isSane(entry, directoryEnd) || !isPicture(file, entry))
            return std::nullopt;
        end = std::max(end, std::uint64_t { entry.offset } + entry.size);
    }
    return candidate.found(end, "ico");
}

} // namespace Formats
