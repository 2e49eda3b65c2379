#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
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

class DiskSource;
struct ExFATBootSector;

/// Where things lie on an exFAT volume, as its boot sector says. Offsets are absolute on the
/// source, sizes in bytes.
struct ExFATGeometry {
    std::uint64_t fatOffset = 0; ///< of the FAT in use
    std::uint64_t fatSize = 0;
    ClusterHeap heap;
    std::uint32_t rootCluster = 0;
    std::uint64_t volumeSize = 0;
    int activeFAT = 0; ///< 1: the second FAT and the second allocation bitmap are the ones in use

    /// None when the volume would be impossible. `base`: where the volume begins on the source; the
    /// boot sector's own idea of that is not asked, since images of one partition keep the disk's.
    static std::optional<ExFATGeometry> from(const ExFATBootSector& boot, std::uint64_t base);
};

/// A volume's geometry, its FAT and its allocation bitmap. Used by one thread at a time.
class ExFATContext {
public:
    /// Reads the FAT.
    ExFATContext(DiskSource& source, const ExFATGeometry& geometry);

    DiskSource& source() const { return source_; }
    const ExFATGeometry& geometry() const { return geometry_; }

    /// Whether there is no FAT to ask. Files are then taken to lie in one piece.
    bool fatUnavailable() const { return fatUnavailable_; }
    /// The next cluster, an end mark, or 0 where the table holds nothing.
    std::uint32_t entry(std::uint32_t cluster) const;
    static bool isEndMark(std::uint32_t entry) { return entry >= endMark; }
    /// The chain that starts at `from`, at most `maxClusters` long.
    ClusterChain chain(std::uint32_t from, std::uint64_t maxClusters);
    /// How many clusters can be in a chain.
    std::uint64_t entryCount() const;

    /// Reads the allocation bitmap, `size` bytes from `cluster` on.
    void loadBitmap(std::uint32_t cluster, std::uint64_t size);
    /// Whether what the bitmap says cannot be known.
    bool bitmapUnavailable() const { return bitmapUnavailable_; }
    /// Whether the bitmap calls the `count` clusters from `first` on free.
    bool areFree(std::uint32_t first, std::uint64_t count) const
    {
        return !used_.containsAny(first, count);
    }

private:
    static constexpr std::uint32_t endMark
        = 0xFFFFFFF8; // FFFFFFF7 marks a bad cluster, FFFFFFFF the end

    DiskSource& source_;
    ExFATGeometry geometry_;
    Bytes fat_;
    bool fatUnavailable_ = true;
    bool bitmapUnavailable_ = true;
    ClusterBits used_;
    ClusterBits seen_; // scratch of chain(): empty between calls
};

/// What the search for lost directory fragments needs to know of a volume that was walked.
class ExFATDeepInfo : public DeepContext {
public:
    ExFATDeepInfo(std::unique_ptr<ExFATContext> walkedContext, ClusterBits claimedClusters,
        ClusterBits liveFileClusters)
        : context(std::move(walkedContext))
        , claimed(std::move(claimedClusters))
        , liveClusters(std::move(liveFileClusters))
    {
    }

    std::unique_ptr<ExFATContext> context;
    ClusterBits claimed;      ///< clusters of directories that were read
    ClusterBits liveClusters; ///< clusters of existing files, and of the file system's own
    bool isRebuilt = false;   ///< put together from directory sectors: no more of them belong to it
};

/// exFAT, existing and deleted entries.
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

/// Those sectors that lie neither in directories that these volumes list nor in existing files.
std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes);

} // namespace ExFATParser
