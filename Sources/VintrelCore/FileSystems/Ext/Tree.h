#pragma once

#include "VintrelCore/FileSystems/Ext/Files.h"
#include "VintrelCore/FileSystems/Ext/Names.h"
#include "VintrelCore/Model/FileNode.h"

namespace ExtTree {

/// Hangs all files and folders below the root, under each name that they have. What is not reached
/// comes into a folder of its own. What has ended and left neither a name nor content is left out.
void build(ExtFiles files, const std::vector<ExtHardLink>& hardLinks, FileNode& root);

} // namespace ExtTree
