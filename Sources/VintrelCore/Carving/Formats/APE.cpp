#include "VintrelCore/Carving/Formats/AudioTags.h"
#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// Monkey's Audio, file descriptor and header of version 3.98 and later. No standard describes it.

namespace Formats {

namespace {

struct Descriptor {
    std::array<std::uint8_t, 4> magic;         //  0  "MAC "
    LE16 version;                              //  4  3980 and more
    LE16 padding;                              //  6
    LE32 descriptorSize, headerSize;           //  8, 12
    LE32 seekTableSize;                        // 16
    LE32 waveHeaderSize;                       // 20  of the file that was compressed
    LE32 framesSize, framesSizeHigh;           // 24, 28
    LE32 waveEndSize;                          // 32
    std::array<std::uint8_t, 16> fileChecksum; // 36
};
static_assert(sizeof(Descriptor) == 52 && offsetof(Descriptor, framesSize) == 24);

struct Header {
    LE16 level, flags;                        //  0, 2
    LE32 frameBlocks, lastBlocks, frameCount; //  4, 8, 12
    LE16 bits, channels;                      // 16, 18
    LE32 rate;                                // 20
};
static_assert(sizeof(Header) == 24 && offsetof(Header, bits) == 16);

constexpr std::uint16_t minVersion = 3980;
constexpr std::uint16_t maxVersion = 4999;
constexpr std::uint32_t maxFramesSizeHigh = 255; // a terabyte

bool isSane(const Descriptor& descriptor, const Header& header)
{
    constexpr std::uint16_t levelStep = 1000;
    return descriptor.version >= minVersion && descriptor.version <= maxVersion
        && descriptor.descriptorSize == sizeof descriptor && descriptor.headerSize == sizeof header
        && descriptor.framesSizeHigh <= maxFramesSizeHigh && header.level % levelStep == 0
        && header.bits % 8 == 0 && header.bits <= 32 && header.channels >= 1
        && header.frameCount >= 1 && descriptor.seekTableSize / sizeof(LE32) >= header.frameCount;
}

} // namespace

Found ape(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto descriptor = file.load<Descriptor>(0);
    if (!isSane(descriptor, file.load<Header>(sizeof descriptor)))
        return std::nullopt;
    const std::uint64_t seekTable = sizeof(Descriptor) + sizeof(Header);
    const std::uint64_t frames = seekTable + descriptor.seekTableSize + descriptor.waveHeaderSize;
    if (file.u32le(seekTable) != frames) // the first frame's place
        return std::nullopt;
    const std::uint64_t framesHigh = descriptor.framesSizeHigh;
    const std::uint64_t end
        = frames + (framesHigh << 32 | descriptor.framesSize) + descriptor.waveEndSize;
    if (!candidate.fits(end))
        return candidate.found(end, "ape");
    return candidate.found(behindAudioTags(file, end), "ape");
}

} // namespace Formats
