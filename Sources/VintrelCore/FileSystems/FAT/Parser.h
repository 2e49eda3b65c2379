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
#include <unordered_set>
#include <vector>

class DiskSource;
struct FATBootSector;

/// Where things lie on a FAT volume, as its boot sector says. Offsets are absolute on the source,
/// sizes in bytes.
struct FATGeometry {
    FileSystemType type {}; ///< fat12, fat16 or fat32, as the probe decided
    std::uint64_t bytesPerSector = 0;
    std::uint64_t fatOffset = 0; ///< of the first FAT
    std::uint64_t fatSize = 0;   ///< of one FAT
    std::uint32_t fatCount = 0;
    std::uint64_t rootDirOffset = 0; ///< of the fixed root directory (FAT12/16)
    std::uint64_t rootDirSize = 0;
    ClusterHeap heap;
    std::uint32_t rootCluster = 0; ///< first cluster of the root directory on FAT32, else 0
    std::uint64_t volumeSize = 0;
    std::string label; ///< the boot sector's; empty when there is none

    /// None when the volume would be impossible. `base`: where the volume begins on the source.
    static std::optional<FATGeometry> from(const FATBootSector& boot, std::uint64_t base);
};

/// A volume's geometry and its allocation table. Used by one thread at a time.
class FATContext {
public:
    /// Reads the FAT; where its first copy is unreadable the second one helps out.
    FATContext(DiskSource& source, FATGeometry geometry);

    DiskSource& source() const { return source_; }
    const FATGeometry& geometry() const { return geometry_; }

    /// Whether there is no FAT to ask (it is empty, or too large to be true). Files are then taken
    /// to lie in one piece.
    bool fatUnavailable() const { return fatUnavailable_; }
    /// How many clusters can be in a chain.
    std::uint64_t entryCount() const
    {
        return fatUnavailable_ ? geometry_.heap.count : loadedEntries();
    }
    /// What the FAT holds for a cluster: the next one, an end mark, or 0 for free. 0 also beyond
    /// the table.
    std::uint32_t entry(std::uint32_t cluster) const;
    /// The chain that starts at `from`, at most `maxClusters` long. Ends incomplete where it loops,
    /// or leaves the volume.
    ClusterChain chain(std::uint32_t from, std::uint64_t maxClusters);
    /// Whether the FAT calls the `count` clusters from `first` on free. True when it is
    /// unavailable.
    bool areFree(std::uint32_t first, std::uint64_t count) const
    {
        return !used_.containsAny(first, count);
    }

private:
    void load();
    std::uint64_t loadedEntries() const;

    DiskSource& source_;
    FATGeometry geometry_;
    Bytes fat_;
    bool fatUnavailable_ = false;
    ClusterBits used_; // clusters whose entry is not 0
    ClusterBits seen_; // scratch of chain(): empty between calls
};

/// What the search for lost directory fragments needs to know of a volume that was walked.
class FATDeepInfo : public DeepContext {
public:
    FATDeepInfo(std::unique_ptr<FATContext> walkedContext,
        std::unordered_set<std::uint32_t> claimedClusters, ClusterBits liveFileClusters)
        : context(std::move(walkedContext))
        , claimed(std::move(claimedClusters))
        , liveClusters(std::move(liveFileClusters))
    {
    }

    std::unique_ptr<FATContext> context;
    std::unordered_set<std::uint32_t>
        claimed;              ///< clusters known to belong to directories that were read
    ClusterBits liveClusters; ///< clusters in the chains of existing files
    bool isRebuilt = false;   ///< put together from directory sectors: no more of them belong to it
};

/// FAT12, FAT16 and FAT32, with long names, existing and deleted entries.
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

/// Those sectors that lie neither in directories that these volumes list nor in existing files.
std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes);

} // namespace FATParser
