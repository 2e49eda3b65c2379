#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// Minolta's raw files: a header of blocks, one of which tells the sensor's size, and the sensor's
// samples behind it. No standard describes it.

namespace Formats {

namespace {

struct BlockHeader {
    std::array<std::uint8_t, 4> name; // 0  a zero and three letters
    BE32 size;                        // 4  of what follows
};
static_assert(sizeof(BlockHeader) == 8);

/// The block "PRD".
struct Dimensions {
    std::array<std::uint8_t, 8> version; //  0
    BE16 sensorHeight, sensorWidth;      //  8, 10
    BE16 height, width;                  // 12, 14  of the picture
    std::uint8_t storedBits, bits;       // 16, 17  of a sample
};
static_assert(sizeof(Dimensions) == 18 && offsetof(Dimensions, storedBits) == 16);

constexpr std::uint32_t maxHeader = 4'194'304;
constexpr int maxBlocks = 64;

} // namespace

Found mrw(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<BlockHeader>(0);
    const std::uint64_t data = sizeof header + header.size;
    if (header.size > maxHeader)
        return std::nullopt;
    std::uint64_t position = sizeof header;
    for (int count = 0; count < maxBlocks && position < data; ++count) {
        const auto block = file.load<BlockHeader>(position);
        position += sizeof block;
        if (block.name[0] != 0 || block.size > data - position)
            break;
        if (ByteView(block.name).matches("PRD", 1)) {
            const auto dimensions = file.load<Dimensions>(position);
            const std::uint64_t samples
                = std::uint64_t { dimensions.sensorHeight } * dimensions.sensorWidth;
            const std::uint64_t size = samples * dimensions.storedBits / 8;
            const bool isSane = samples > 0
                && (dimensions.storedBits == 12 || dimensions.storedBits == 16)
                && dimensions.height <= dimensions.sensorHeight
                && dimensions.width <= dimensions.sensorWidth;
            return isSane ? Found(candidate.found(data + size, "mrw")) : std::nullopt;
        }
        position += block.size;
    }
    return std::nullopt;
}

} // namespace Formats
