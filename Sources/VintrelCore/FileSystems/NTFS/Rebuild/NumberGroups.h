#pragma once

#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"

#include <span>
#include <vector>

namespace NTFSRebuild {

using RecordGroup = std::vector<LooseRecord>;

/// Sorts records into those that could be of one volume: no group is empty or has records of two
/// sizes, and none has two records of one number as long as the number of groups is not at its
/// limit.
std::vector<RecordGroup> groupByNumber(std::span<const LooseRecord> records);

} // namespace NTFSRebuild
