#pragma once

#include "VintrelCore/FileSystems/NTFS/Shadow/Chain.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <cstdint>
#include <optional>
#include <vector>

class DiskSource;

namespace NTFSShadow {

/// A shadow copy as the catalog of its volume names it. Offsets are in bytes from the start of the
/// volume.
struct Store {
    std::optional<Date> created;
    std::uint64_t sequence = 0; ///< grows from one to the next
    std::uint64_t blockList = 0;
};

/// The shadow copies of the volume that begins at byte `base`, oldest first; none when the volume
/// has no catalog.
std::vector<Store> readCatalog(DiskSource& source, std::uint64_t base);

} // namespace NTFSShadow
