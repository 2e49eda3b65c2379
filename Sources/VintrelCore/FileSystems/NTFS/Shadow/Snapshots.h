#pragma once

#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

class DiskSource;

namespace NTFSShadow {

/// The shadow copies of a volume, oldest first, as volumes of their own: the files that the volume
/// does not have as they were. Their places are those on the source.
VolumeList snapshots(DiskSource& source, Volume& volume, WorkProgress* progress);

} // namespace NTFSShadow
