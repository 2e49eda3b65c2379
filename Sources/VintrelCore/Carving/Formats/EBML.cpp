#include "VintrelCore/Carving/Formats/Formats.h"

#include <bit>

// RFC 8794 (EBML) and the Matroska specification: a header element, then one segment.

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
    return candidate.found(size, isWebM ? "webm" : "mkv");
}

} // namespace Formats
