#pragma once

#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Model/CarvedFile.h"

#include <string_view>
#include <vector>

namespace Fragments {

/// What can be shown of a file that could not be made whole. `piece`: from its first byte on to
/// where it ends at the latest. Pictures end before the contradiction in their content; a recording
/// that was never closed ends where it cannot be followed any more, with the piece, or before a
/// long stretch of zeros. Empty where nothing of use is left.
std::vector<CarvedFile> remnantsOf(
    std::string_view extension, const ByteRange& piece, BlockCache& cache);

/// The thumbnail in the head of a photo; none where there is none, or only a part of it.
std::vector<CarvedFile> thumbnailsOf(const ByteRange& piece, BlockCache& cache);

} // namespace Fragments
