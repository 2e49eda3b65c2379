#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"
#include "VintrelCore/FileSystems/FAT/DeepInfo.h"
#include "VintrelCore/Foundation/Binary.h"
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

/// FAT12, FAT16 and FAT32, with long names, existing and deleted entries. Nothing here
/// fails or throws for what is on the disk. A volume and its source are used by one thread at a
/// time.
namespace FATParser {

/// fat12, fat16 or fat32 when the bytes, the first 512 of a volume, begin one of this kind; else
/// none.
std::optional<FileSystemType> probe(ByteView head);

/// Where the volume begins, in bytes on the source, whose backup boot sector is `sector` and lies
/// at byte `offset`; none for FAT12 and FAT16, which keep none, and where it would begin before the
/// source.
std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset);

/// The volume that begins at byte `offset`; none when there is no FAT volume, or an impossible one.
/// `boot`: a boot sector found elsewhere, to be used instead of the one at `offset`.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot = {});

/// A volume that parse() gave, read again with both copies of its FAT: where a sector of the first
/// is all zero, the second one's is used. None when that changes nothing.
std::unique_ptr<Volume> readAgain(DiskSource& source, const Volume& volume, WorkProgress* progress);

/// Whether what lies where the boot sector has it confirms that a volume begins at byte `offset`: a
/// copy of the FAT begins as every FAT does, or the root directory looks like one.
bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView boot);

/// Whether the 512 bytes at `at` look like a sector of a FAT directory.
bool looksLikeDirectorySector(ByteView bytes, std::int64_t at = 0);

/// What candidate directory sectors (absolute offsets, in any order) hold beyond the directories
/// that were walked: the folder "$Tabte mappefragmenter", or none. Folders that others of them name
/// have their place and name below these. Remembers on the volume which clusters it used.
std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress);

/// The volumes without a boot sector that directory sectors (absolute offsets, ascending) belong
/// to. Where their clusters lie is what at least two directories, or files found by content, agree
/// on. Without a FAT, files are taken to lie in one piece; without a root directory, all that was
/// found is in the folder "$Tabte mappefragmenter".
VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress);

/// Those sectors (ascending) that lie neither in directories that these volumes list nor in
/// existing files.
std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes);

} // namespace FATParser
