#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

/// The one place where volume headers are decoded. Pure: any thread may ask.
namespace HFSPlusVolumeHeader {

/// What a header of HFS+ or HFSX says of the volume's size; none when its signature, version, block
/// size or number of blocks is impossible. The first 48 bytes are enough.
std::optional<HFSPlusFormat::VolumeHeaderStart> decodeStart(ByteView header);

/// The whole header; none when its start is impossible, or when there are fewer than 512 bytes.
std::optional<HFSPlusFormat::VolumeHeader> decode(ByteView header);

/// Places 512 bytes apart.
struct Starts {
    std::uint64_t lowest, highest; ///< both among them
};

/// Where the volume may begin, in bytes on the source, whose alternate header lies at byte
/// `offset`. The highest place is the likeliest: a volume may be up to a block longer than its
/// blocks, in sectors. None when all places lie before the source.
std::optional<Starts> startsByAlternate(
    const HFSPlusFormat::VolumeHeader& header, std::uint64_t offset);

} // namespace HFSPlusVolumeHeader
