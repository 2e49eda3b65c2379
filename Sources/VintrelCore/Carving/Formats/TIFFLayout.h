#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

// "TIFF Revision 6.0", Image File Header and Image File Directory. Exif 2.3 has the same layout.

namespace Formats {

template <std::endian order> struct TIFFHeader {
    std::array<std::uint8_t, 2> byteOrder;       // 0  "II" or "MM"
    Stored<std::uint16_t, order> magic;          // 2
    Stored<std::uint32_t, order> firstDirectory; // 4
};
static_assert(sizeof(TIFFHeader<std::endian::big>) == 8);

/// One line of a directory as it lies on disk. The directory begins with their number, and ends
/// with the place of the next directory.
template <std::endian order> struct StoredTIFFField {
    Stored<std::uint16_t, order> tag, type;   // 0, 2
    Stored<std::uint32_t, order> count;       // 4  of values
    Stored<std::uint32_t, order> valueOffset; // 8  where they lie; or they themselves, where four
                                              //    bytes have room for them
};
static_assert(sizeof(StoredTIFFField<std::endian::big>) == 12);

inline constexpr std::uint64_t tiffCountSize = sizeof(std::uint16_t);
inline constexpr std::uint64_t tiffFieldSize = sizeof(StoredTIFFField<std::endian::big>);
inline constexpr std::uint64_t tiffNextSize = sizeof(std::uint32_t);
inline constexpr std::uint64_t tiffInlineValues
    = offsetof(StoredTIFFField<std::endian::big>, valueOffset);

/// The same, as numbers.
struct TIFFField {
    std::uint16_t tag, type;
    std::uint32_t count, valueOffset;

    template <std::endian order>
    explicit TIFFField(const StoredTIFFField<order>& stored)
        : tag(stored.tag)
        , type(stored.type)
        , count(stored.count)
        , valueOffset(stored.valueOffset)
    {
    }
};

} // namespace Formats
