#include "VintrelCore/Carving/Formats/Formats.h"

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

template <std::endian order> Found picture(const Candidate& candidate)
{
    constexpr std::uint32_t magic = 0x5344'5058; // "SDPX"
    constexpr std::uint32_t minImageOffset = 1664;
    constexpr std::uint32_t maxImageOffset = 1'048'576;
    const auto header = candidate.file.load<Header<order>>(0);
    if (header.magic != magic || header.version[0] != 'V' || header.imageOffset < minImageOffset
        || header.imageOffset > maxImageOffset || header.fileSize <= header.imageOffset)
        return std::nullopt;
    return candidate.found(header.fileSize, "dpx");
}

} // namespace

Found dpx(const Candidate& candidate)
{
    if (auto found = picture<std::endian::big>(candidate))
        return found;
    return picture<std::endian::little>(candidate);
}

} // namespace Formats
