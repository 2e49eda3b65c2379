#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// SMPTE ST 377-1, Material Exchange Format: keys, lengths and values one behind the other. Most
// files end with an index of their partitions.

namespace Formats {

namespace {

using Key = std::array<std::uint8_t, 16>;

constexpr std::uint32_t labelPrefix = 0x060E'2B34; // of all keys
constexpr std::string_view partition { "\x02\x05\x01\x01\x0D\x01\x02\x01\x01", 9 };
constexpr std::uint8_t headerPartition = 2;
constexpr std::uint8_t randomIndex = 0x11;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr int maxValues = 100'000'000;

/// A length in the manner of ISO/IEC 8825-1, and how many bytes it takes; a width of 0 where it is
/// malformed.
struct Length {
    std::uint64_t width;
    std::uint64_t value;
};

Length lengthAt(RandomReader& file, std::uint64_t position)
{
    constexpr unsigned longForm = 0x80;
    constexpr unsigned maxWidth = 8;
    const unsigned first = file.u8(position);
    if (first < longForm)
        return { 1, first };
    const unsigned width = first - longForm;
    if (width == 0 || width > maxWidth)
        return { 0, 0 };
    return { 1 + width, file.u64be(position + 1) >> (64 - 8 * width) };
}

/// Which of the packs that belong to the file itself a key is of; 0 for none.
std::uint8_t packOf(const Key& key)
{
    constexpr std::int64_t kindOffset = 4;
    constexpr std::size_t packOffset = 13;
    return ByteView(key).matches(partition, kindOffset) ? key[packOffset] : std::uint8_t { 0 };
}

} // namespace

Found mxf(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (packOf(file.load<Key>(0)) != headerPartition)
        return std::nullopt;
    std::uint64_t position = 0;
    for (int count = 0; count < maxValues && position < limit; ++count) {
        const auto key = file.load<Key>(position);
        const auto length = lengthAt(file, position + sizeof key);
        if (ByteView(key).u32be(0) != labelPrefix || length.width == 0 || length.value >= limit
            || !candidate.fits(position + sizeof key + length.width + length.value))
            break;
        position += sizeof key + length.width + length.value;
        if (packOf(key) == randomIndex)
            return candidate.proved(position, "mxf");
    }
    constexpr std::uint64_t minSize = 1024;
    return position >= minSize && position < limit ? Found(candidate.proved(position, "mxf"))
                                                   : std::nullopt;
}

} // namespace Formats
