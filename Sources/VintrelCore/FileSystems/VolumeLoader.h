#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class DiskSource;
class WorkProgress;

/// The one way from a file-system type to the parser that reads it.
namespace VolumeLoader {

/// The volumes of the file system that begins at byte `offset`; none when it cannot be read.
/// `origin` is stored in each of them. `progress` may be none. `boot`: a boot sector found
/// elsewhere, to be used instead of the one at `offset`. `partitionSize`: in bytes, 0 when it is
/// not known. `volumes`: those that were read before; what they list is not read again.
VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot = {},
    std::uint64_t partitionSize = 0, std::vector<const Volume*> volumes = {});

/// Puts what a deep scan reads of the volumes in their place, where that is more.
void readAgain(DiskSource& source, VolumeList& volumes, WorkProgress* progress);

} // namespace VolumeLoader
