#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <optional>
#include <string>
#include <vector>

namespace NTFSParser {

/// Finds the MFT by its own record or, where that is not to be used or has lost some of it, by the
/// copy in $MFTMirr. None when neither describes an MFT. Adds Danish notes about what was damaged.
std::optional<MappedStream> locateMFT(const NTFSContext& context, std::vector<std::string>& notes);

/// The records of an MFT; when cancelled, those that were read so far. `progress` may be none.
MFTRecords readAllRecords(
    const NTFSContext& context, const MappedStream& mft, WorkProgress* progress);

} // namespace NTFSParser
