#include "VintrelCore/Carving/Formats/Formats.h"

// IEC 61834-2 and SMPTE ST 314M (DV): frames of ten or twelve sequences, each of 150 blocks that
// say what they are and where they belong.

namespace Formats {

namespace {

constexpr std::uint64_t blockSize = 80;
constexpr std::uint64_t sequenceSize = 150 * blockSize;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;

/// Whether the sequence of this number begins at `position`: with a header, and subcode behind it.
bool isSequence(RandomReader& file, std::uint64_t position, std::uint32_t number)
{
    constexpr std::uint32_t sectionAndBlock = 0xE000'FF00; // also which block of the section
    constexpr std::uint32_t header = 0;
    constexpr std::uint32_t subcode = 0x2000'0000;
    const auto first = file.u32be(position);
    return (first & sectionAndBlock) == header && (first >> 20 & 0xF) == number
        && (file.u32be(position + blockSize) & sectionAndBlock) == subcode;
}

} // namespace

Found dv(const Candidate& candidate)
{
    auto& file = candidate.file;
    constexpr std::uint8_t isFiftyHertz = 0x80;
    const std::uint32_t sequences = (file.u8(3) & isFiftyHertz) != 0 ? 12 : 10;
    std::uint64_t end = 0; // of the last whole frame
    while (end < limit && candidate.fits(end + sequences * sequenceSize)) {
        for (std::uint32_t number = 0; number < sequences; ++number)
            if (!isSequence(file, end + number * sequenceSize, number))
                return end > 0 ? Found(candidate.proved(end, "dv")) : std::nullopt;
        end += sequences * sequenceSize;
    }
    return end > 0 ? Found(candidate.proved(end, "dv")) : std::nullopt;
}

} // namespace Formats
