#pragma once

#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Scanning/Partitions.h"

#include <string>
#include <vector>

class DiskSource;
class WorkProgress;

/// From an opened source to its partitions and volumes, by what its tables say.
namespace QuickScanner {

struct ScanResult {
    PartitionLayout layout;
    VolumeList volumes;             ///< in the order of the partitions
    std::vector<std::string> notes; ///< the layout's, then the scan's own
};

/// When cancelled, what was found so far. `progress` may be none. Runs on the calling thread.
ScanResult run(DiskSource& source, WorkProgress* progress);

/// Adds the volumes that the tables name and that only a deep scan reads.
void readDeepOnly(DiskSource& source, ScanResult& result, WorkProgress* progress);

} // namespace QuickScanner
