#include "VintrelCore/Carving/Formats/Programs.h"

#include <bit>
#include <cstddef>

// "System V Application Binary Interface", Object Files: a header, and tables of segments and
// sections.

namespace Formats {

namespace {

/// `Word`: as wide as the addresses of the machine.
template <std::endian order, class Word> struct ELFHeader {
    std::array<std::uint8_t, 4> magic;             // 0
    std::uint8_t width, byteOrder, identVersion;   // 4, 5, 6
    std::array<std::uint8_t, 9> unused;            // 7
    Stored<std::uint16_t, order> type, machine;    // 16, 18
    Stored<std::uint32_t, order> version;          // 20
    Stored<Word, order> entry, segments, sections; // 24, …  places of the tables
    Stored<std::uint32_t, order> flags;
    Stored<std::uint16_t, order> headerSize;
    Stored<std::uint16_t, order> segmentSize, segmentCount;
    Stored<std::uint16_t, order> sectionSize, sectionCount, names;
};
static_assert(sizeof(ELFHeader<std::endian::little, std::uint32_t>) == 52);
static_assert(sizeof(ELFHeader<std::endian::little, std::uint64_t>) == 64);

template <std::endian order, class Word> struct ELFSection {
    Stored<std::uint32_t, order> name, type;          // 0, 4
    Stored<Word, order> flags, address, offset, size; // 8, …
    Stored<std::uint32_t, order> link, info;
    Stored<Word, order> alignment, entrySize;
};
static_assert(sizeof(ELFSection<std::endian::little, std::uint32_t>) == 40);
static_assert(sizeof(ELFSection<std::endian::little, std::uint64_t>) == 64);

template <std::endian order, class Word> ProgramSize withHeader(const Candidate& candidate)
{
    using Header = ELFHeader<order, Word>;
    using Section = ELFSection<order, Word>;
    constexpr std::uint32_t noBits = 8; // of memory that begins as zeros
    constexpr std::uint16_t sizeOfSegment = 2 * sizeof(Word) == 8 ? 32 : 56;
    const auto header = candidate.file.load<Header>(0);
    const bool hasSections = header.sectionCount > 0;
    const bool hasSegments = header.segmentCount > 0;
    if (header.version != 1 || header.headerSize != sizeof header || !(hasSections || hasSegments)
        || (hasSections && header.sectionSize != sizeof(Section))
        || (hasSegments && header.segmentSize != sizeOfSegment))
        return std::nullopt;
    ProgramExtent extent(candidate);
    extent.add(0, sizeof header);
    extent.add(header.segments, std::uint64_t { header.segmentCount } * sizeOfSegment);
    extent.add(header.sections, std::uint64_t { header.sectionCount } * sizeof(Section));
    for (std::uint16_t i = 0; i < header.sectionCount && extent.size(); ++i) {
        const auto section
            = candidate.file.load<Section>(header.sections + std::uint64_t { i } * sizeof(Section));
        if (section.type != noBits)
            extent.add(section.offset, section.size);
    }
    return extent.size();
}

} // namespace

ProgramSize elf(const Candidate& candidate)
{
    constexpr std::uint64_t widthOffset = 4;
    switch (candidate.file.u16be(widthOffset)) { // and the byte order
    case 0x0101:
        return withHeader<std::endian::little, std::uint32_t>(candidate);
    case 0x0102:
        return withHeader<std::endian::big, std::uint32_t>(candidate);
    case 0x0201:
        return withHeader<std::endian::little, std::uint64_t>(candidate);
    case 0x0202:
        return withHeader<std::endian::big, std::uint64_t>(candidate);
    default:
        return std::nullopt;
    }
}

} // namespace Formats
