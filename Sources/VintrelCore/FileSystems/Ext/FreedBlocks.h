#pragma once

#include "VintrelCore/FileSystems/Ext/Content.h"
#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/FileSystems/Ext/Files.h"

namespace ExtFreedBlocks {

/// Gives deleted files of which only the dead inode is left the blocks that became free in the
/// transaction of their deletion, where that was the only one in it. Nothing says in which order
/// the blocks were: they are taken in that of the disk.
void assign(const ExtContext& context, const ExtContent& content, ExtFiles& files);

} // namespace ExtFreedBlocks
