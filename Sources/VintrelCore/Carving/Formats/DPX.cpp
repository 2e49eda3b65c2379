#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>
#include <cstddef>

// SMPTE ST 268 (DPX): a picture of a film, with its size in a header of either byte order.

namespace Formats {

namespace {

template <std::endian order> struct Header {
    using U32 = Stored<std::uint32_t, order>;
    U32 magic, imageOffset;              //  0, 4
    std::array<char, 8> version;         //  8  "V1.0" or "V2.0"
    U32 fileSize, dittoKey, genericSize; // 16, 20, 24
};
static_assert(sizeof(Header<std::endian::big>) == 28);

/// How a picture is stored that consists of a single element.
template <std::endian order> struct Element {
    using U16 = Stored<std::uint16_t, order>;
    using U32 = Stored<std::uint32_t, order>;
    U16 orientation, elements;           //  0, 2
    U32 width, height;                   //  4, 8
    std::array<U32, 5> references;       // 12
    std::uint8_t descriptor;             // 32  which components a pixel has
    std::array<std::uint8_t, 2> colours; // 33
    std::uint8_t bits;                   // 35  of a component
    U16 packing, encoding;               // 36, 38
    U32 dataOffset, linePadding;         // 40, 44
};
static_assert(sizeof(Element<std::endian::big>) == 48);
constexpr std::uint64_t elementOffset = 768;

constexpr std::uint64_t componentsOf(std::uint8_t descriptor)
{
    enum : std::uint8_t { lastGrey = 8, rgb = 50, rgba = 51, abgr = 52 };
    if (descriptor == rgba || descriptor == abgr)
        return 4;
    return descriptor == rgb ? 3 : descriptor <= lastGrey ? 1 : 0;
}

/// The least that so many components take up; 0 where they are stored in a way of its own.
constexpr std::uint64_t leastSize(std::uint64_t components, std::uint8_t bits, bool areFilled)
{
    constexpr std::uint64_t word = 4;
    constexpr std::uint64_t perWord = 3; // of ten bits
    if (bits == 10)
        return areFilled ? unitsFor(components, perWord) * word : 0;
    if (bits == 8 || bits == 16 || (bits == 12 && areFilled))
        return components * unitsFor(bits, 8);
    return 0;
}

/// Where the picture ends at the earliest; 0 where that does not follow from the header.
template <std::endian order> std::uint64_t leastEnd(RandomReader& file, std::uint64_t imageOffset)
{
    constexpr std::uint32_t maxEdge = 1'000'000;
    const auto element = file.load<Element<order>>(elementOffset);
    if (element.elements != 1 || element.encoding != 0 || element.dataOffset != imageOffset
        || element.width > maxEdge || element.height > maxEdge)
        return 0;
    const std::uint64_t pixels = std::uint64_t { element.width } * element.height;
    return imageOffset
        + leastSize(pixels * componentsOf(element.descriptor), element.bits, element.packing != 0);
}

template <std::endian order> Found picture(const Candidate& candidate)
{
    constexpr std::uint32_t magic = 0x5344'5058; // "SDPX"
    constexpr std::uint32_t minImageOffset = 1664;
    constexpr std::uint32_t maxImageOffset = 1'048'576;
    const auto header = candidate.file.load<Header<order>>(0);
    if (header.magic != magic || header.version[0] != 'V' || header.imageOffset < minImageOffset
        || header.imageOffset > maxImageOffset || header.fileSize <= header.imageOffset)
        return std::nullopt;
    // Some programs state the size that the picture would have with eight bits.
    const auto end = leastEnd<order>(candidate.file, header.imageOffset);
    return candidate.found(std::max<std::uint64_t>(header.fileSize, end), "dpx");
}

} // namespace

Found dpx(const Candidate& candidate)
{
    if (auto found = picture<std::endian::big>(candidate))
        return found;
    return picture<std::endian::little>(candidate);
}

} // namespace Formats
