#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <vector>

/// The clusters of an attribute, in the order of its content.
using RunList = std::vector<CompressedRuns::Run>;

/// How many clusters the runs have together, or the largest number there is when they claim more.
std::uint64_t clusterCount(const RunList& runs);

namespace NTFSParser {

/// Decodes a run list ("NTFS Documentation", Data Runs). `bytes` begin with the list and end where
/// it must. A run that no volume could have ends the list: those before it stay, because they are
/// all that is left of a damaged one.
RunList decodeRuns(ByteView bytes);

} // namespace NTFSParser
