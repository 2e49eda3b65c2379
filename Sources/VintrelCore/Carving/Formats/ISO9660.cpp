#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// ECMA-119 (ISO 9660), volume descriptors: they lie behind 32 KiB that belong to nobody, and
// say how large the volume is.

namespace Formats {

namespace {

constexpr std::uint64_t firstDescriptor = 32'768;
constexpr std::uint64_t sectorSize = 2048;
constexpr std::uint64_t maxDescriptors = 64;

struct Descriptor {
    std::uint8_t type;                      //   0
    std::array<std::uint8_t, 5> identifier; //   1  "CD001"
    std::uint8_t version;                   //   6
    std::array<std::uint8_t, 73> names;     //   7
    LE32 blocks;                            //  80  of the volume
    BE32 blocksAgain;                       //  84
    std::array<std::uint8_t, 40> sets;      //  88
    LE16 blockSize;                         // 128
    BE16 blockSizeAgain;                    // 130
};
static_assert(sizeof(Descriptor) == 132 && offsetof(Descriptor, blocks) == 80);

enum Type : std::uint8_t { primary = 1, terminator = 255 };

} // namespace

Found iso9660(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = file.load<Descriptor>(firstDescriptor);
    const std::uint64_t blockSize = first.blockSize;
    const bool isSane = first.type == primary && first.blocks == first.blocksAgain
        && blockSize == first.blockSizeAgain && blockSize == sectorSize;
    if (!isSane)
        return std::nullopt;
    for (std::uint64_t i = 0; i < maxDescriptors; ++i) {
        const auto descriptor = file.load<Descriptor>(firstDescriptor + i * sectorSize);
        if (!ByteView(descriptor.identifier).matches("CD001", 0) || descriptor.version != 1)
            break;
        // What lies inside are files of their own, so that nothing of it is passed over.
        if (descriptor.type == terminator)
            return candidate.found(first.blocks * blockSize, "iso");
    }
    return std::nullopt;
}

} // namespace Formats
