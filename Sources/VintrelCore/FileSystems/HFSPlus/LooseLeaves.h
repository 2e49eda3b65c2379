#pragma once

#include "VintrelCore/Model/Volume.h"

#include <vector>

class DiskSource;
class WorkProgress;
struct DeepScanResult;

/// What a sweep met of the files of volumes of HFS+. Used by one thread.
namespace HFSPlusLooseLeaves {

/// Reads the rest of catalogs that are too long for a quick scan, and adds deleted files that only
/// older leaves name, which lie in the journal above all, to the folders of their volumes. Gives
/// those whose folders are lost.
std::vector<ExtraFolder> findLostFolders(DiskSource& source, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress);

} // namespace HFSPlusLooseLeaves
