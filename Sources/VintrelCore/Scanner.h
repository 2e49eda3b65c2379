#pragma once

#include "VintrelCore/Model.h"
#include "VintrelCore/Partitions.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class DiskSource;

/// The one way from a file-system type to the parser that reads it.
namespace VolumeLoader {

/// The volumes of the file system that begins at byte `offset`; none when it cannot be read. `origin` is stored in each
/// of them. `boot`: a boot sector found elsewhere, to be used instead of the one at `offset`.
VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot = {});

} // namespace VolumeLoader

/// From an opened source to its partitions and volumes, by what its tables say.
namespace QuickScanner {

struct ScanResult {
    PartitionLayout layout;
    VolumeList volumes;             ///< in the order of the partitions
    std::vector<std::string> notes; ///< the layout's, then the scan's own
};

/// When cancelled, what was found so far. `progress` may be none.
ScanResult run(DiskSource& source, WorkProgress* progress);

} // namespace QuickScanner
