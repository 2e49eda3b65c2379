#pragma once

#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class DiskSource;

namespace NTFSParser {

/// What a boot sector says of the volume that begins at byte `base`, as long as the first records
/// of the MFT agree. Where they do not, what the backup boot sector says if they agree with that,
/// or else the sizes that the records themselves tell; then a Danish note says so. None when there
/// is no NTFS volume. `partitionSize`: in bytes, 0 when it is not known.
std::optional<NTFSGeometry> checkedGeometry(DiskSource& source, ByteView boot, std::uint64_t base,
    std::uint64_t partitionSize, std::vector<std::string>& notes);

} // namespace NTFSParser
