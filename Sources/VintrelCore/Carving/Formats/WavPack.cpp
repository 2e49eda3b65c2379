#include "VintrelCore/Carving/Formats/AudioTags.h"
#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "WavPack 4 & 5 Binary File / Block Format": blocks that each say their length and which samples
// they hold.

namespace Formats {

namespace {

struct BlockHeader {
    std::array<std::uint8_t, 4> id;           //  0  "wvpk"
    LE32 size;                                //  4  less the first eight bytes
    LE16 version;                             //  8  0x402 to 0x410
    std::uint8_t indexHigh, totalSamplesHigh; // 10, 11
    LE32 totalSamples;                        // 12  all ones where they were not known
    LE32 index;                               // 16  of the block's first sample
    LE32 samples;                             // 20
    LE32 flags, checksum;                     // 24, 28
};
static_assert(sizeof(BlockHeader) == 32 && offsetof(BlockHeader, index) == 16);
constexpr std::uint64_t uncounted = offsetof(BlockHeader, version);

constexpr std::uint16_t minVersion = 0x402;
constexpr std::uint16_t maxVersion = 0x410;
constexpr std::uint32_t maxBlockSize = 1'048'576;
constexpr int maxBlocks = 10'000'000;

bool isBlock(const BlockHeader& block)
{
    return ByteView(block.id).matches("wvpk", 0) && block.version >= minVersion
        && block.version <= maxVersion && block.size >= sizeof block - uncounted
        && block.size <= maxBlockSize;
}

std::uint64_t indexOf(const BlockHeader& block)
{
    return std::uint64_t { block.indexHigh } << 32 | block.index;
}

} // namespace

Found wavPack(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 0;
    std::uint64_t samples = 0; // up to the end of the last block
    std::uint64_t lastIndex = 0;
    for (int count = 0; count < maxBlocks && candidate.fits(position + sizeof(BlockHeader));
         ++count) {
        const auto block = file.load<BlockHeader>(position);
        const bool hasSound = block.samples != 0;
        const bool beginsAnew
            = hasSound && count > 0 && indexOf(block) < lastIndex; // the next file
        if (!isBlock(block) || beginsAnew || !candidate.fits(position + uncounted + block.size))
            break;
        if (hasSound) { // and no sum of all the sound, which comes last
            lastIndex = indexOf(block);
            samples = lastIndex + block.samples;
        }
        position += uncounted + block.size;
    }
    if (samples == 0)
        return std::nullopt;
    return candidate.proved(behindAudioTags(file, position), "wv");
}

} // namespace Formats
