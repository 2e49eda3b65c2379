#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <bit>

// RFC 8794 (EBML) and RFC 9559 (Matroska): a header element, then one segment.

namespace Formats {

namespace {

constexpr std::uint64_t idSize = 4;
constexpr std::uint64_t maxHeaderSize = 4095;
constexpr std::uint32_t segmentID = 0x1853'8067;

/// A number whose leading zero bits tell how many bytes follow the first one.
struct VariableInteger {
    std::uint64_t value;
    std::uint64_t width; ///< in bytes, 1 to 8

    /// None when it is malformed, or all ones: a live stream does not know its size.
    static std::optional<VariableInteger> at(RandomReader& file, std::uint64_t position)
    {
        const auto first = file.u8(position);
        const auto width = static_cast<unsigned>(std::countl_zero(first)) + 1;
        if (width > 8)
            return std::nullopt;
        const std::uint64_t unknown = (std::uint64_t { 1 } << (7 * width)) - 1;
        const std::uint64_t value = file.u64be(position) >> (64 - 8 * width) & unknown;
        if (value == unknown)
            return std::nullopt;
        return VariableInteger { value, width };
    }
};

/// What a segment consists of (Matroska, Top-Level Elements), and what may stand anywhere.
constexpr std::uint32_t segmentElements[] = { 0x114D'9B74, 0x1549'A966, 0x1654'AE6B, 0x1F43'B675,
    0x1C53'BB6B, 0x1941'A469, 0x1043'A770, 0x1254'C367, 0xEC, 0xBF };
constexpr int maxElements = 10'000'000;

/// The width of an element's identifier, whose leading bits are part of it; 0 when it is malformed.
unsigned identifierWidth(std::uint8_t first)
{
    const auto width = static_cast<unsigned>(std::countl_zero(first)) + 1;
    return width <= idSize ? width : 0;
}

/// Whether elements that belong into a segment fill it from `position` to its end.
bool isProved(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    for (int count = 0; count < maxElements && position < end; ++count) {
        const auto width = identifierWidth(file.u8(position));
        const std::uint32_t id = width == 0 ? 0 : file.u32be(position) >> (32 - 8 * width);
        const auto size = VariableInteger::at(file, position + width);
        if (std::ranges::count(segmentElements, id) == 0 || !size || size->value > end - position)
            return false;
        position += width + size->width + size->value;
    }
    return position == end;
}

} // namespace

Found ebml(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto headerSize = VariableInteger::at(file, idSize);
    if (!headerSize || headerSize->value > maxHeaderSize)
        return std::nullopt;
    const std::uint64_t header = idSize + headerSize->width;
    const std::uint64_t segment = header + headerSize->value;
    if (file.u32be(segment) != segmentID)
        return std::nullopt;
    const auto segmentSize = VariableInteger::at(file, segment + idSize);
    if (!segmentSize)
        return std::nullopt;
    const std::uint64_t size = segment + idSize + segmentSize->width + segmentSize->value;
    if (!candidate.fits(size))
        return std::nullopt;
    const auto body = file.bytes(header, static_cast<std::size_t>(headerSize->value));
    const bool isWebM
        = ByteView(body)
              .firstIndex(ByteView(std::to_array<std::uint8_t>({ 'w', 'e', 'b', 'm' })), 0)
              .has_value();
    auto found = candidate.found(size, isWebM ? "webm" : "mkv");
    found.isProved = isProved(file, segment + idSize + segmentSize->width, size);
    return found;
}

} // namespace Formats
