#pragma once

#include "VintrelCore/FileSystems/APFS/Container.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/FileSystems/APFS/Role.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

class DiskSource;

/// APFS containers and the volumes in them: existing files, and deleted ones from older states of
/// the trees. Any thread may call; a source and its volumes are used by one call at a time.
namespace APFSParser {

/// Whether a container begins with these bytes: its first 4096, or fewer where the source ends.
/// `apfs` when they have the magic of a superblock; none else.
std::optional<FileSystemType> probe(ByteView head);

/// The volumes of the container that begins at byte `offset`; none when there is no usable
/// container.
VolumeList parse(
    DiskSource& source, std::uint64_t offset, const std::string& origin, WorkProgress* progress);

/// Where the container begins whose superblock lies at byte `superblockOffset`: there, or before it
/// when it is a checkpoint's. None when it is no superblock, or neither place has the object map
/// that it names.
std::optional<std::uint64_t> containerStart(DiskSource& source, std::uint64_t superblockOffset);

/// Whether a volume that was read is one of the container that begins at this byte.
bool isInContainer(const Volume& volume, std::uint64_t containerStart);

/// The volumes of the container that a superblock belongs to which was found at byte
/// `superblockOffset`, also where the container's first block is lost.
VolumeList parseFromSuperblock(DiskSource& source, std::uint64_t superblockOffset,
    const std::string& origin, WorkProgress* progress);

/// What loose leaves of file-system trees (absolute offsets, in any order, also those of other
/// volumes) hold beyond the files that the volume lists: the folder "$Forældreløse filer", in which
/// they stand below copies of their folders where these are known. A volume whose root has that
/// folder already gets them there, and none is returned; none too when there is nothing. Remembers
/// on the volume what it listed.
std::unique_ptr<FileNode> lostFiles(DiskSource& source, Volume& volume,
    std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);

/// The snapshots of a volume, oldest first, as volumes of their own: the files that the volume does
/// not list as they were then. The volume loses its note that it does not show them.
VolumeList snapshots(DiskSource& source, Volume& volume, WorkProgress* progress);

/// Adds the ranges of the source that the volume's container has in use, as its space manager says.
/// False, and nothing added, when any of that cannot be read.
bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges);

} // namespace APFSParser
