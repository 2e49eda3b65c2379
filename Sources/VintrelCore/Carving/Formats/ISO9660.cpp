#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// ECMA-119 (ISO 9660), volume descriptors: they lie behind 32 KiB that belong to nobody, and
// say how large the volume is. Where these hold a partition table ("Unified Extensible Firmware
// Interface Specification", GUID Partition Table), its copy ends the file, behind partitions for
// starting a computer.

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

enum Type : std::uint8_t { primary = 1, supplementary = 2, terminator = 255 };

/// The part of a partition table's header that counts here. Its units are 512 bytes.
struct TableHeader {
    std::array<std::uint8_t, 8> signature; //  0  "EFI PART"
    std::array<std::uint8_t, 16> others;   //  8
    LE64 here, copy;                       // 24, 32  where this header and the other one lie
};
static_assert(sizeof(TableHeader) == 40 && offsetof(TableHeader, copy) == 32);

/// Where the copy of the partition table ends; 0 without one.
std::uint64_t behindTables(RandomReader& file)
{
    constexpr std::uint64_t unit = 512;
    constexpr std::uint64_t maxUnits = std::uint64_t { 1 } << 33;
    const auto header = file.load<TableHeader>(unit);
    const std::uint64_t copy = header.copy;
    if (!ByteView(header.signature).matches("EFI PART", 0) || header.here != 1 || copy > maxUnits)
        return 0;
    const auto other = file.load<TableHeader>(copy * unit);
    const bool isCopy
        = other.signature == header.signature && other.here == copy && other.copy == 1;
    return isCopy ? (copy + 1) * unit : 0;
}

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
        const std::uint8_t maxVersion = descriptor.type == supplementary ? 2 : 1; // 2: long names
        if (!ByteView(descriptor.identifier).matches("CD001", 0) || descriptor.version == 0
            || descriptor.version > maxVersion)
            break;
        // What lies inside are files of their own, so that nothing of it is passed over.
        if (descriptor.type == terminator)
            return candidate.found(std::max(first.blocks * blockSize, behindTables(file)), "iso");
    }
    return std::nullopt;
}

} // namespace Formats
