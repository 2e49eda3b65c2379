#pragma once

#include "VintrelCore/Model/Volume.h"

class DiskSource;
class WorkProgress;
struct DeepScanResult;

/// What the structures that a sweep found say beyond what the tables name.
namespace LostVolumes {

/// The volumes that a sweep's finds belong to and that are not among the `known` ones. When
/// cancelled, those found so far. `progress` may be none. Runs on the calling thread.
VolumeList find(DiskSource& source, const DeepScanResult& finds, const VolumeList& known,
    WorkProgress* progress);

/// Adds to the volumes what the sweep met of their files and they do not list.
void addLostFiles(DiskSource& source, const VolumeList& volumes, const DeepScanResult& finds,
    WorkProgress* progress);

} // namespace LostVolumes
