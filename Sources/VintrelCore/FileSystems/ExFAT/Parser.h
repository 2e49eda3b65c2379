#pragma once

#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"
#include "VintrelCore/FileSystems/ExFAT/DeepInfo.h"
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

/// exFAT, existing and deleted entries. Nothing here fails or throws for what is on the disk. A
/// volume and its source are used by one thread at a time.
namespace ExFATParser {

/// `exfat` when the bytes, the first 512 of a volume, begin one of this kind; else none.
std::optional<FileSystemType> probe(ByteView head);

/// Where the volume begins, in bytes on the source, whose backup boot sector is `sector` and lies
/// at byte `offset`; none where the sector is not one of exFAT, and where it would begin before the
/// source.
std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset);

/// The volume that begins at byte `offset`; none when there is no exFAT volume, or an impossible
/// one. `boot`: a boot sector found elsewhere, the backup above all, to be used instead of the one
/// at `offset`.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot = {});

/// Whether what lies where the boot sector has it confirms that a volume begins at byte `offset`:
/// the root directory names an allocation bitmap that fits.
bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView boot);

/// Whether in the 512 bytes at `at` begins an entry set whose checksum holds, and nothing else than
/// entries lies there. The set may go on behind them.
bool looksLikeDirectorySector(ByteView bytes, std::int64_t at = 0);

/// What candidate directory sectors (absolute offsets, in any order) hold beyond the directories
/// that were walked: the folder "$Tabte mappefragmenter", or none. Folders that others of them name
/// have their place and name below these. Remembers on the volume which clusters it used.
std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress);

/// The volumes without a boot sector that directory sectors (absolute offsets, ascending) belong
/// to. Where their clusters lie is what at least two folders, or files found by content, agree on.
/// Without a FAT, files are taken to lie in one piece; without a root directory, all that was found
/// is in the folder "$Tabte mappefragmenter".
VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> sectors,
    const DirectoryHints& hints, WorkProgress* progress);

/// Those sectors (ascending) that lie neither in directories that these volumes list nor in
/// existing files.
std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes);

} // namespace ExFATParser
