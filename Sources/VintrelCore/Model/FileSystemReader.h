#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class DiskSource;
class LostVolumeSearch;
class WorkProgress;
struct DeepScanResult;

/// A volume to be read.
struct LoadRequest {
    DiskSource& source;
    std::uint64_t offset; ///< where the volume begins, in bytes
    const std::string& origin;
    WorkProgress* progress; ///< may be none
    std::optional<ByteView>
        boot; ///< a boot sector found elsewhere, to be used instead of the own one
    std::uint64_t partitionSize = 0;       ///< in bytes; 0: not known
    std::vector<const Volume*> volumes {}; ///< that were read before
};

/// What a file system is to those who scan. Every file system is one such row in the table of
/// FileSystems.h; what it has nothing to say about is null.
struct FileSystemReader {
    /// The types that the reader tells apart.
    std::span<const FileSystemType> types;

    /// Which of them begins with these bytes, the first 4096 of a volume, cut at the source's end.
    std::optional<FileSystemType> (*probe)(ByteView head);

    /// The volumes that begin at a place; none when they cannot be read. Null: the file system is
    /// only recognised.
    VolumeList (*load)(const LoadRequest& request);

    /// What a deep scan reads of a volume that was loaded, from structures that the quick scan does
    /// not ask. None when that changes nothing. Null: there are no such structures.
    std::unique_ptr<Volume> (*readAgain)(
        DiskSource& source, const Volume& volume, WorkProgress* progress)
        = nullptr;

    /// What a volume that begins with these bytes is encrypted with, as a name for the user; empty
    /// when it is not. Null: never.
    std::string_view (*encryptionOf)(ByteView head) = nullptr;

    /// What the quick scan says instead of loading; empty when it loads.
    std::string_view quickScanNote;

    // Boot sectors, for file systems whose volumes begin with one.

    /// Where the volume begins whose backup boot sector lies at byte `offset`; none for types
    /// without one.
    std::optional<std::uint64_t> (*startByBackup)(ByteView sector, std::uint64_t offset);
    /// Whether what lies on the source confirms that the volume of a boot sector begins at byte
    /// `start`.
    bool (*isConfirmed)(DiskSource& source, std::uint64_t start, ByteView sector);
    /// Whether a backup counts as one only beside a volume that is known or confirmed at its place.
    /// Otherwise loading the volume decides.
    bool confirmsBackups;

    // What is left where tables and boot sectors are gone.

    /// Finds volumes by headers of their own that a sweep met.
    void (*findVolumes)(LostVolumeSearch& search);
    /// Puts volumes together from what a sweep met of them and no volume has.
    void (*rebuildVolumes)(LostVolumeSearch& search);
    /// What a sweep met of the files of these volumes and they do not list. Some of it may be added
    /// to folders that the volumes have already.
    std::vector<ExtraFolder> (*findLostFolders)(DiskSource& source, const VolumeList& volumes,
        const DeepScanResult& finds, WorkProgress* progress);

    /// Earlier states of a volume that it keeps itself, as volumes. Their files share places with
    /// its own.
    VolumeList (*findSnapshots)(DiskSource& source, Volume& volume, WorkProgress* progress)
        = nullptr;

    // What the volumes that the tables name say of the disk.

    /// Adds the ranges of the source that a volume has in use, its own structures among them, in
    /// any order. False, and nothing added, when what says so cannot be read.
    bool (*addUsedRanges)(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges);
};
