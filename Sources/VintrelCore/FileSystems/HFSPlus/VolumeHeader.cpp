#include "VintrelCore/FileSystems/HFSPlus/VolumeHeader.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>
#include <limits>

using namespace HFSPlusFormat;

namespace {

// TN1150 allows any power of two from 512 bytes on. No system makes larger blocks than this.
constexpr std::uint32_t minBlockSize = 512;
constexpr std::uint32_t maxBlockSize = 1'048'576;

constexpr std::uint64_t sectorSize = 512; ///< the finest step in which a volume may be longer

bool isKnownVersion(const VolumeHeaderStart& start)
{
    return (start.signature == signatureHFSPlus && start.version == versionHFSPlus)
        || (start.signature == signatureHFSX && start.version == versionHFSX);
}

} // namespace

namespace HFSPlusVolumeHeader {

std::optional<VolumeHeaderStart> decodeStart(ByteView header)
{
    const auto start = header.load<VolumeHeaderStart>(0);
    if (!start || !isKnownVersion(*start) || start->blockSize < minBlockSize
        || start->blockSize > maxBlockSize || !std::has_single_bit<std::uint32_t>(start->blockSize)
        || start->totalBlocks == 0)
        return std::nullopt;
    return start;
}

std::optional<VolumeHeader> decode(ByteView header)
{
    return decodeStart(header) ? header.load<VolumeHeader>(0) : std::nullopt;
}

std::optional<Starts> startsByAlternate(const VolumeHeader& header, std::uint64_t offset)
{
    const std::uint64_t blockSize = header.start.blockSize;
    const std::uint64_t size = blockSize * header.start.totalBlocks; // below 2^52
    if (offset > std::numeric_limits<std::uint64_t>::max() - alternateHeaderFromEnd
        || size > offset + alternateHeaderFromEnd)
        return std::nullopt;
    const auto highest = offset + alternateHeaderFromEnd - size;
    return Starts { highest - roundDown(std::min(blockSize - sectorSize, highest), sectorSize),
        highest };
}

} // namespace HFSPlusVolumeHeader
