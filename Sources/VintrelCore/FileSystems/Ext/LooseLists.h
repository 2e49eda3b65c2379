#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <vector>

class DiskSource;
struct DeepScanResult;

/// Lists of blocks ("Direct/Indirect Block Addressing") that no inode points to any more. Deleting
/// a file empties its inode, and leaves on the disk the lists that say where its blocks from the
/// thirteenth on lie. Used by one thread at a time.
namespace ExtLooseLists {

/// Whether such a list may begin with this sector: with two blocks in a row, or with a single one.
bool looksLikeList(ByteView sector);

/// The files of ext volumes that only loose lists tell of: a folder for each volume that has some.
/// Their first twelve blocks are taken to lie right in front of the thirteenth, where systems put
/// them. Nothing tells the name, and the size only where the content does. `progress` may be none.
std::vector<ExtraFolder> findLostFolders(DiskSource& source, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress);

} // namespace ExtLooseLists
