#pragma once

#include <cstdint>
#include <optional>

class RandomReader;

namespace Formats {

/// Where that ends, in bytes from the start of the file, which the block in front of a TIFF file's
/// directories refers to in raw files of Phase One; none without such a block.
std::optional<std::uint64_t> phaseOneEnd(RandomReader& file);

} // namespace Formats
