#include "VintrelCore/Carving/Formats/Programs.h"

#include <cstddef>

// "PE Format" (Microsoft): a program for DOS, which says where the header of the one for Windows
// lies, and a table of sections.

namespace Formats {

namespace {

struct COFFHeader {
    std::array<std::uint8_t, 4> magic;  //  0  "PE", zeros
    LE16 machine, sectionCount;         //  4, 6
    LE32 time, symbols, symbolCount;    //  8, 12, 16
    LE16 optionalSize, characteristics; // 20, 22
};
static_assert(sizeof(COFFHeader) == 24);

struct Section {
    std::array<std::uint8_t, 8> name;    //  0
    LE32 memorySize, address;            //  8, 12
    LE32 size, offset;                   // 16, 20
    std::array<std::uint8_t, 16> unused; // 24
};
static_assert(sizeof(Section) == 40 && offsetof(Section, offset) == 20);

constexpr std::uint64_t headerPlace = 0x3C;
constexpr std::uint32_t maxHeaderOffset = 65'536;
constexpr std::uint16_t maxSections = 96;

} // namespace

ProgramSize portableExecutable(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto start = file.u32le(headerPlace);
    const auto header = file.load<COFFHeader>(start);
    if (start > maxHeaderOffset || ByteView(header.magic).u32be(0) != 0x5045'0000
        || header.sectionCount == 0 || header.sectionCount > maxSections)
        return std::nullopt;
    ProgramExtent extent(candidate);
    const std::uint64_t sections = start + sizeof header + header.optionalSize;
    extent.add(sections, std::uint64_t { header.sectionCount } * sizeof(Section));
    for (std::uint16_t i = 0; i < header.sectionCount; ++i) {
        const auto section = file.load<Section>(sections + std::uint64_t { i } * sizeof(Section));
        extent.add(section.offset, section.size);
    }
    return extent.size();
}

} // namespace Formats
