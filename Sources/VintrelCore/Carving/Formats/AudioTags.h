#pragma once

#include "VintrelCore/Disk/RandomReader.h"

#include <cstdint>

namespace Formats {

/// Where a file of sound ends whose last frame ends at `position`: behind a tag of "APE tags" 2.0
/// and one of ID3v1, where programs have put them.
std::uint64_t behindAudioTags(RandomReader& file, std::uint64_t position);

} // namespace Formats
