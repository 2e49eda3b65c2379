#pragma once

#include "VintrelCore/Model/Volume.h"

class DiskSource;
class WorkProgress;

/// What the Recycle Bin of Windows knows of the files in it. They lie there under names of its own
/// making, and an index says where they came from.
namespace RecycleBin {

/// Adds to the notes of files and folders in the bins of these volumes where they lay before, and
/// when they were put into the bin. `progress` may be none.
void noteOriginalPaths(DiskSource& source, const VolumeList& volumes, WorkProgress* progress);

} // namespace RecycleBin
