#pragma once

#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class APFSSpaceManager;
class APFSVolumeReader;
class DiskSource;

/// One APFS container on its source: from its superblocks to its volumes. Blocks are numbered from
/// its start. Used by one thread at a time.
class APFSContainer : public std::enable_shared_from_this<APFSContainer> {
public:
    /// One entry of a B-tree node. The bytes are the node's.
    struct NodeRecord {
        ByteView key;
        ByteView value;
    };

    struct Node {
        std::uint16_t level = 0; ///< 0: leaf
        std::vector<NodeRecord> records;
    };

    /// A version of a virtual object: where it was written by a transaction.
    struct Version {
        std::uint64_t oid = 0;
        std::uint64_t xid = 0;
        std::uint64_t block = 0;
        bool isDeleted = false; ///< since that transaction the object is no more
    };

    /// Blocks in a row.
    struct Blocks {
        std::uint64_t first = 0;
        std::uint64_t end = 0; ///< the block behind the last one
    };

    /// The container that begins at byte `base`; none when no usable superblock lies there.
    static std::shared_ptr<APFSContainer> open(DiskSource& source, std::uint64_t base);
    /// The same by a superblock that lies at byte `superblockOffset`, where the one at `base` is
    /// lost.
    static std::shared_ptr<APFSContainer> open(
        DiskSource& source, std::uint64_t base, std::uint64_t superblockOffset);

    ~APFSContainer();

    DiskSource& source() const { return source_; }
    std::uint64_t base() const { return base_; }
    std::uint64_t blockSize() const { return blockSize_; }   ///< in bytes; 4096 … 65,536
    std::uint64_t blockCount() const { return blockCount_; } ///< 0: not known
    ByteView superblock() const { return superblock_; }      ///< the newest one, one block long
    /// The transaction up to which objects are accepted; the largest number there is for no limit.
    std::uint64_t xid() const { return xid_; }
    const std::vector<std::string>& notes() const { return notes_; } ///< for the volumes

    /// The volumes, in the order of their slots. When cancelled, those that were read so far.
    /// `progress` may be none.
    VolumeList volumes(const std::string& origin, WorkProgress* progress);

    /// The block of every virtual object in the object map at block `oid`, by its newest version
    /// that is not newer than `maxXID`. Empty when the map cannot be read.
    std::unordered_map<std::uint64_t, std::uint64_t> loadOMap(
        std::uint64_t oid, std::uint64_t maxXID);

    /// The entries of a B-tree node, as far as they make sense; none when it is no node, or a
    /// damaged one. The lengths are those of keys and of leaf values in nodes that do not say them.
    std::optional<Node> parseNode(ByteView bytes, int fixedKey, int fixedValue) const;

    // The rest is for the readers of volumes.

    /// The place of a block on the source; none for one beyond the source's end.
    std::optional<std::uint64_t> offsetOf(std::uint64_t block) const;
    /// Whether a pointer can mean this block. Never so for 0, where the superblock is.
    bool isValid(std::uint64_t block) const;
    /// Reads a block that is valid into `buffer`, which gets its size. Each read counts against
    /// what a container of this size can need; false when that is used up, and for a block that is
    /// not valid.
    bool readBlock(std::uint64_t block, Bytes& buffer);

    /// Hands every version in the object map at block `oid` to `visit`, from nodes that are not
    /// newer than `maxXID` and not in `visited`, to which they are added.
    void walkObjectMap(std::uint64_t oid, std::uint64_t maxXID,
        std::unordered_set<std::uint64_t>& visited,
        const std::function<void(const Version&)>& visit);

    /// The superblocks that older checkpoints have of a volume, newest first.
    std::vector<Bytes> olderSuperblocks(std::uint64_t volumeOID);

    /// Tells which blocks are in use by what exists.
    void addInUse(Blocks blocks) { inUse_.push_back(blocks); }
    /// Estimates the chance of a deleted file when every volume has been read. The node stays where
    /// it is until then.
    void estimateLater(FileNode& node) { toEstimate_.push_back(&node); }
    /// Estimates those that wait. False when the space manager, which knows best, cannot be read.
    bool estimateDeleted();
    /// Takes the extents of one file from those that all files together may have: a sound container
    /// has no more, and a made-up one could name the same extents in many files. False when there
    /// are not so many left.
    bool takeExtents(std::size_t count);

    std::unordered_set<std::uint64_t>
        visitedMaps; ///< nodes of the volumes' object maps that were read
    std::unordered_set<std::uint64_t>
        minedLeaves; ///< blocks whose records are known, or wait to be looked at
    /// The volume (its oid) that a virtual object belongs to: these numbers are the container's,
    /// not the volume's.
    std::unordered_map<std::uint64_t, std::uint64_t> ownerOf;
    std::vector<const APFSVolumeReader*>
        readers; ///< of the volumes whose files were read, as long as they live

private:
    struct Checkpoint {
        std::uint64_t xid = 0;
        std::uint64_t offset = 0; ///< of its superblock, in bytes on the source
    };

    APFSContainer(
        DiskSource& source, std::uint64_t base, Bytes firstSuperblock, std::uint64_t firstOffset);

    void findCheckpoints();
    Bytes superblockOf(const Checkpoint& checkpoint);
    std::unordered_map<std::uint64_t, std::uint64_t> usableObjectMap();
    std::unique_ptr<Volume> volume(
        ByteView superblock, std::uint64_t oid, const std::string& origin, WorkProgress* progress);
    void estimate(FileNode& node);
    bool isInUse(Blocks blocks);

    DiskSource& source_;
    const std::uint64_t base_;
    const std::uint64_t blockSize_;
    const std::uint64_t blockCount_;
    Bytes superblock_;
    std::uint64_t xid_;
    std::vector<std::string> notes_;
    std::vector<Checkpoint> checkpoints_; // the valid ones, newest first
    std::uint64_t readsLeft_;
    std::uint64_t extentsLeft_;
    std::optional<std::vector<Version>>
        volumeVersions_;        // superblocks of volumes at all checkpoints
    std::vector<Blocks> inUse_; // sorted and merged by estimateDeleted()
    std::vector<FileNode*> toEstimate_;
    std::unique_ptr<APFSSpaceManager> spaceManager_;
    bool spaceManagerLoaded_ = false;
};

/// APFS containers and the volumes in them: existing files, and deleted ones from older states of
/// the trees.
namespace APFSParser {

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

/// How a volume's role (0: none) is called.
std::string roleName(std::uint16_t role);

} // namespace APFSParser
