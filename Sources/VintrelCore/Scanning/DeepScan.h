#pragma once

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

class DiskSource;
class WorkProgress;

struct DeepScanOptions {
    bool carve = true;
    std::set<FileCategory> categories = carvedCategories(); ///< of the files to carve
    bool findVolumes = true;                                ///< look for structures of file systems
    bool findTexts = false;       ///< texts without a mark, of which every disk is full
    bool noteBrokenHeads = false; ///< of files to carve that may lie in pieces
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

    /// The volumes that a sweep's finds belong to and that are not among the `known` ones. When
    /// cancelled, those found so far. `partitionStarts`: where partitions begin, in bytes: what is
    /// rebuilt without a boot sector may lie there.
    static VolumeList buildVolumes(DiskSource& source, const DeepScanResult& result,
        const VolumeList& known, WorkProgress* progress,
        std::span<const std::uint64_t> partitionStarts = {});

    /// What the sweep found that belongs to these volumes and that they do not list. Some of it may
    /// be added to folders that the volumes have already.
    static std::vector<ExtraFolder> extraFolders(DiskSource& source, const VolumeList& volumes,
        const DeepScanResult& result, WorkProgress* progress);

    /// The snapshots of these volumes, as volumes.
    static VolumeList snapshots(DiskSource& source,
        std::span<const std::unique_ptr<Volume>> volumes, WorkProgress* progress);

    /// The files found by content, as a volume with a folder for each kind.
    static std::unique_ptr<Volume> carvedVolume(
        DiskSource& source, std::span<const CarvedFile> files);

private:
    DiskSource& source_;
    DeepScanOptions options_;
};
