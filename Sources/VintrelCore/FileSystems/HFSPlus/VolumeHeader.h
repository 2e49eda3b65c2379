#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <vector>

/// The one place where volume headers are decoded. Pure: any thread may ask.
namespace HFSPlusVolumeHeader {

/// What a header of HFS+ or HFSX says of the volume's size; none when its signature, version, block
/// size or number of blocks is impossible. The first 48 bytes are enough.
std::optional<HFSPlusFormat::VolumeHeaderStart> decodeStart(ByteView header);

/// The whole header; none when its start is impossible, or when there are fewer than 512 bytes.
std::optional<HFSPlusFormat::VolumeHeader> decode(ByteView header);

/// See HFSPlusParser::startsByAlternate.
std::vector<std::uint64_t> startsByAlternate(ByteView header, std::uint64_t offset);

} // namespace HFSPlusVolumeHeader
