#pragma once

#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Model/FileNode.h"

/// The named streams of files: what lies in $DATA attributes with a name.
namespace NTFSStreams {

/// Attaches the streams of a file to its node, those that are large enough to be someone's data.
/// The record's are used up.
void attach(const NTFSContext& context, MFTRecord& record, FileNode& node);

/// Lowers the chances of a deleted file's streams by who owns their clusters now.
void judgeDeleted(FileNode& node, const AllocationMap& map, const NTFSGeometry& geometry);

/// Adds the names of a file's streams to its note.
void note(FileNode& node);

} // namespace NTFSStreams
