#pragma once

#include "VintrelCore/Scanning/Partitions.h"

#include <cstdint>
#include <vector>

class DiskSource;

/// The table in a disk's first sector, with the chains of extended boot records that hang from it.
namespace MBR {

/// The partitions that the table names, primary ones first, without ids and numbers and not probed.
/// Empty when there is no table, when it protects a GPT, and when it names nothing on the source.
/// `unit`: the bytes of the sectors that the table counts in. A logical partition stands for each
/// slot of a chain where the convention puts it, and for any other slot that leads to a volume.
std::vector<PartitionEntry> read(DiskSource& source, std::uint64_t unit);

} // namespace MBR
