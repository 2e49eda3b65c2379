#pragma once

#include "VintrelCore/FileSystems/Ext/LooseFiles.h"
#include "VintrelCore/Foundation/Binary.h"

struct DeepScanResult;

/// Nodes of extent trees ("Extent Tree") that no inode points to any more. The system takes a
/// deleted file's extents out of its nodes in memory alone, so that the disk keeps them. Used by
/// one thread at a time.
namespace ExtLooseNodes {

/// Whether such a node may begin with this sector: as full of room as a block can be.
bool looksLikeNode(ByteView sector);

/// Adds the files of a volume that only loose nodes tell of. The nodes of a file have checksums
/// that begin alike; where the volume has none, nodes belong together that name each other.
void add(ExtContext& context, const ExtListed& listed, const DeepScanResult& finds,
    ExtLooseFiles& files);

} // namespace ExtLooseNodes
