#pragma once

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/Partitions.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

class DiskSource;

/// The one way from a file-system type to the parser that reads it.
namespace VolumeLoader {

/// The volumes of the file system that begins at byte `offset`; none when it cannot be read.
/// `origin` is stored in each of them. `boot`: a boot sector found elsewhere, to be used instead of
/// the one at `offset`.
VolumeList load(DiskSource& source, FileSystemType type, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, std::optional<ByteView> boot = {});

} // namespace VolumeLoader

/// From an opened source to its partitions and volumes, by what its tables say.
namespace QuickScanner {

struct ScanResult {
    PartitionLayout layout;
    VolumeList volumes;             ///< in the order of the partitions
    std::vector<std::string> notes; ///< the layout's, then the scan's own
};

/// When cancelled, what was found so far. `progress` may be none.
ScanResult run(DiskSource& source, WorkProgress* progress);

} // namespace QuickScanner

struct DeepScanOptions {
    bool carve = true;
    std::set<FileCategory> categories = carvedCategories(); ///< of the files to carve
    bool findVolumes = true;                                ///< look for structures of file systems
};

/// How far a sweep has come.
struct DeepScanStats {
    std::uint64_t position = 0; ///< bytes swept so far
    std::uint64_t total = 0;    ///< size of the source in bytes
    std::uint64_t filesFound = 0;
    std::uint64_t bootSectors = 0; ///< with HFS+ headers and APFS container superblocks
    std::uint64_t mftRecords = 0;
    double rate = 0;              ///< bytes per second lately; 0 in the first second
    std::uint64_t badSectors = 0; ///< unreadable ones of the source
    double elapsed = 0;           ///< seconds
    std::map<std::string, std::uint64_t> byExtension {}; ///< carved files
};

/// A boot sector, or a copy of one, that lies somewhere on the source.
struct FoundBoot {
    std::uint64_t offset = 0; ///< of the sector, in bytes
    FileSystemType type {};
    std::array<std::uint8_t, 512> sector {};
};

/// What a sweep found. Offsets are in bytes on the source, ascending.
struct DeepScanResult {
    std::vector<CarvedFile> carved;
    std::vector<FoundBoot> boots;
    std::vector<std::uint64_t>
        hfsHeaders;                  ///< where the volumes begin: 1024 bytes before their headers
    std::vector<std::uint64_t> nxsb; ///< APFS container superblocks
    std::vector<std::uint64_t> mftRecords;    ///< sectors that begin an NTFS file record
    std::vector<std::uint64_t> fatDirSectors; ///< sectors that look like part of a FAT directory
    std::vector<std::uint64_t> apfsLeafNodes; ///< leaves of APFS file-system trees
    std::vector<std::uint64_t>
        exfatDirSectors;    ///< sectors in which entry sets of exFAT directories begin
    bool completed = false; ///< whether the end of the source was reached
    std::uint64_t scannedUpTo = 0;
};

/// Reads the whole source once, from front to back, and asks at every sector of 512 bytes which
/// structure of a file system lies there and which known file begins there. It interprets nothing.
class DeepScanner {
public:
    explicit DeepScanner(DiskSource& source, DeepScanOptions options = {})
        : source_(source)
        , options_(std::move(options))
    {
    }

    /// The sweep. `reporter` may be none; when it is cancelled, what was found so far is the
    /// result. `onUpdate` hears of the progress about three times a second and at the end.
    DeepScanResult run(WorkProgress* reporter,
        const std::function<void(const DeepScanStats&)>& onUpdate = {}) const;

    /// The volumes that a sweep's finds belong to and that are not among the `known` ones.
    static VolumeList buildVolumes(DiskSource& source, const DeepScanResult& result,
        const VolumeList& known, WorkProgress* progress);

    /// A folder for the root of a volume, with files that its own tables do not name any more.
    struct ExtraFolder {
        Volume* volume;
        std::unique_ptr<FileNode> folder;
    };
    /// What the sweep found that belongs to these volumes and that they do not list. Some of it may
    /// be added to folders that the volumes have already.
    static std::vector<ExtraFolder> extraFolders(DiskSource& source, const VolumeList& volumes,
        const DeepScanResult& result, WorkProgress* progress);

    /// The files found by content, as a volume with a folder for each kind.
    static std::unique_ptr<Volume> carvedVolume(
        DiskSource& source, std::span<const CarvedFile> files);

private:
    DiskSource& source_;
    DeepScanOptions options_;
};
