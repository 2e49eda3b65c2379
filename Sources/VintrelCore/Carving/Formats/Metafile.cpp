#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// [MS-WMF] with the placeable header in front, and [MS-EMF]: records that say their lengths, the
// last of which is known.

namespace Formats {

namespace {

/// The placeable header, and the first fields of the one behind it.
struct WMFHeader {
    LE32 key;                               //  0  9AC6CDD7
    std::array<std::uint8_t, 18> placement; //  4
    LE16 type, headerWords, version;        // 22, 24, 26
    LE32 words;                             // 28  of the file, without the placeable header
    std::array<std::uint8_t, 8> others;     // 32
};
static_assert(sizeof(WMFHeader) == 40 && offsetof(WMFHeader, words) == 28);

struct WMFRecord {
    LE32 words;    // 0
    LE16 function; // 4  zero in the last one
};
static_assert(sizeof(WMFRecord) == 6);

struct EMFHeader {
    LE32 type, size;                       //  0, 4  of this record
    std::array<std::uint8_t, 32> bounds;   //  8
    std::array<std::uint8_t, 4> signature; // 40  " EMF"
    LE32 version, bytes, records;          // 44, 48, 52  of the whole file
};
static_assert(sizeof(EMFHeader) == 56 && offsetof(EMFHeader, bytes) == 48);

struct EMFRecord {
    LE32 type, size; // 0, 4
};
static_assert(sizeof(EMFRecord) == 8);

constexpr std::uint64_t wordSize = 2;
constexpr std::uint64_t maxSize = 1'073'741'824;
constexpr std::uint32_t maxRecords = 100'000'000;

} // namespace

Found wmf(const Candidate& candidate)
{
    constexpr std::uint64_t placeableSize = 22;
    auto& file = candidate.file;
    const auto header = file.load<WMFHeader>(0);
    const std::uint64_t size = placeableSize + std::uint64_t { header.words } * wordSize;
    if (header.type < 1 || header.type > 2 || header.headerWords != 9 || size > maxSize)
        return std::nullopt;
    std::uint64_t position = sizeof header;
    while (position < size) {
        const auto record = file.load<WMFRecord>(position);
        if (record.words < sizeof record / wordSize)
            break;
        position += std::uint64_t { record.words } * wordSize;
        if (record.function == 0) // some programs count the placeable header as well
            return position == size || position == size - placeableSize
                ? Found(candidate.proved(position, "wmf"))
                : std::nullopt;
    }
    return std::nullopt;
}

Found emf(const Candidate& candidate)
{
    constexpr std::uint32_t lastType = 14;
    auto& file = candidate.file;
    if (!file.matches(offsetof(EMFHeader, signature), " EMF"))
        return std::nullopt;
    const auto header = file.load<EMFHeader>(0);
    std::uint64_t position = 0;
    // Not every program counts all its records.
    for (std::uint32_t count = 0; count < maxRecords && position < header.bytes; ++count) {
        const auto record = file.load<EMFRecord>(position);
        if (record.size < sizeof record || record.size > header.bytes - position)
            break;
        position += record.size;
        if (record.type == lastType)
            return position == header.bytes && position <= maxSize
                ? Found(candidate.proved(position, "emf"))
                : std::nullopt;
    }
    return std::nullopt;
}

} // namespace Formats
