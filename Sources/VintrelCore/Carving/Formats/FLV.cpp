#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "Adobe Flash Video File Format Specification" 10.1: tags, and behind each how long it was.

namespace Formats {

namespace {

struct FileHeader {
    std::array<std::uint8_t, 3> signature; // 0  "FLV"
    std::uint8_t version, flags;           // 3, 4
    BE32 size;                             // 5  of this header
    BE32 previousTagSize;                  // 9  zero, since there is none
};
static_assert(sizeof(FileHeader) == 13 && offsetof(FileHeader, size) == 5);

struct TagHeader {
    std::uint8_t type;                    //  0
    std::uint8_t sizeHigh;                //  1
    BE16 sizeLow;                         //  2
    BE32 time;                            //  4
    std::array<std::uint8_t, 3> streamID; //  8  always zero

    std::uint64_t size() const { return std::uint64_t { sizeHigh } << 16 | sizeLow; }
};
static_assert(sizeof(TagHeader) == 11 && offsetof(TagHeader, time) == 4);

constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;

bool isType(std::uint8_t type)
{
    constexpr std::uint8_t sound = 8;
    constexpr std::uint8_t video = 9;
    constexpr std::uint8_t script = 18;
    type &= 0x1F; // the bits above: encrypted or not
    return type == sound || type == video || type == script;
}

} // namespace

Found flv(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<FileHeader>(0);
    if (header.version != 1 || header.size != offsetof(FileHeader, previousTagSize)
        || header.previousTagSize != 0)
        return std::nullopt;
    std::uint64_t position = sizeof header;
    bool hasTags = false;
    while (position < limit && candidate.fits(position + sizeof(TagHeader))) {
        const auto tag = file.load<TagHeader>(position);
        const std::uint64_t end = position + sizeof tag + tag.size();
        if (!isType(tag.type) || !candidate.fits(end + sizeof(BE32))
            || file.u32be(end) != sizeof tag + tag.size())
            break;
        position = end + sizeof(BE32);
        hasTags = true;
    }
    return hasTags && position < limit ? Found(candidate.proved(position, "flv")) : std::nullopt;
}

} // namespace Formats
