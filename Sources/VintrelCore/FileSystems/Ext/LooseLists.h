#pragma once

#include "VintrelCore/FileSystems/Ext/LooseFiles.h"
#include "VintrelCore/Foundation/Binary.h"

struct DeepScanResult;

/// Lists of blocks ("Direct/Indirect Block Addressing") that no inode points to any more. Deleting
/// a file empties its inode, and leaves on the disk the lists that say where its blocks from the
/// thirteenth on lie. Used by one thread at a time.
namespace ExtLooseLists {

/// Whether such a list may begin with this sector: with two blocks in a row, or with a single one.
bool looksLikeList(ByteView sector);

/// Adds the files of a volume that only loose lists tell of. Their first twelve blocks are taken to
/// lie right in front of the thirteenth, where systems put them.
void add(ExtContext& context, const ExtListed& listed, const DeepScanResult& finds,
    ExtLooseFiles& files);

} // namespace ExtLooseLists
