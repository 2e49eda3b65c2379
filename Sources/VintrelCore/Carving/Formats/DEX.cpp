#include "VintrelCore/Carving/Formats/Programs.h"

#include <cstddef>

// "Dalvik Executable format" (Android): the header says how long the file is.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 8> magic;      //  0  "dex", a line feed, three digits, a zero
    LE32 checksum;                          //  8
    std::array<std::uint8_t, 20> signature; // 12
    LE32 fileSize, headerSize, byteOrder;   // 32, 36, 40
};
static_assert(sizeof(Header) == 44 && offsetof(Header, fileSize) == 32);

} // namespace

ProgramSize dex(const Candidate& candidate)
{
    constexpr std::uint32_t minHeader = 0x70;
    constexpr std::uint32_t littleEndian = 0x1234'5678;
    const auto header = candidate.file.load<Header>(0);
    if (header.headerSize < minHeader || header.byteOrder != littleEndian
        || header.fileSize < header.headerSize)
        return std::nullopt;
    ProgramExtent extent(candidate);
    extent.add(0, header.fileSize);
    return extent.size();
}

} // namespace Formats
