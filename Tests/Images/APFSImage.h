#pragma once

#include "Tests/Images/DiskImage.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

/// Builds an APFS container in memory, most often with one volume, one transaction after the other:
/// each writes what it changes to blocks that were never used before, so that all older states stay
/// on the disk, and in the checkpoint area as long as that has room.
class APFSImage : public DiskImage {
public:
    struct Options {
        std::uint64_t blocks = 300;
        std::uint64_t base = 0; ///< bytes before the container
        bool isHashed = true;   ///< names ignore case
        std::uint16_t role = 0;
        std::uint64_t snapshots = 0;
        std::uint64_t flags = 1; ///< unencrypted
        std::string name = "DISK";
        std::size_t volumes = 1;
        std::uint64_t blockBytes = 4096;
        std::uint64_t generation = 0; ///< another one has another UUID
        bool hasAddressBlock = false; ///< as large containers have between space manager and chunks
    };

    struct Inode {
        std::uint64_t id;
        std::uint64_t parent;
        std::string name;
        std::uint64_t size = 0;
        std::uint16_t mode = 0x81A4; ///< a file
        std::uint64_t privateID = 0; ///< 0: the same as `id`
        std::uint64_t created = 1'600'000'000'000'000'000;
        std::uint32_t bsdFlags = 0;
        bool isSparse = false;
        bool isCloned = false;
    };

    /// A record of the file-system tree.
    struct Record {
        Bytes key, value;
        bool operator==(const Record&) const = default;
    };
    using Leaf = std::vector<Record>;

    explicit APFSImage(Options options);

    static Record inode(const Inode& inode);
    Record entry(std::uint64_t parent, const std::string& name, std::uint64_t id,
        bool isFolder = false) const;
    static Record extent(
        std::uint64_t owner, std::uint64_t logical, std::uint64_t length, std::uint64_t block);
    static Record sibling(
        std::uint64_t id, std::uint64_t siblingID, std::uint64_t parent, const std::string& name);
    static Record attribute(std::uint64_t id, const std::string& name, std::string_view content);
    /// An attribute whose content lies in the extents of `owner`.
    static Record attributeStream(
        std::uint64_t id, const std::string& name, std::uint64_t owner, std::uint64_t size);
    /// The records of a file in one piece, or of a folder, and of its name.
    Leaf file(const Inode& inode, std::uint64_t block = 0) const;
    Leaf folder(std::uint64_t id, std::uint64_t parent, const std::string& name) const;

    /// Sorts records as a sound tree has them, and distributes them.
    static std::vector<Leaf> split(Leaf records, std::size_t perLeaf);

    /// Makes these leaves the tree, in a new transaction. A leaf that stays the same keeps its
    /// block. Records are sorted within each leaf; the root folder's come by themselves. The other
    /// volumes stay as they are.
    void commit(std::vector<Leaf> leaves, std::size_t volume = 0);
    /// Makes a snapshot of the first volume as it is now. The next commit lists it; the volume
    /// keeps all versions of its nodes when the options say that it has snapshots.
    void takeSnapshot(const std::string& name);
    /// Deletes the last volume in a new transaction, which only older checkpoints have then.
    void deleteLastVolume();
    /// Lets the first volume's tree name a node, and its object map say that versions of it lie in
    /// these blocks, whatever is there.
    void addNode(std::uint64_t oid, const std::vector<std::uint64_t>& blocks);

    /// Blocks for content.
    std::uint64_t store(const Bytes& content);
    void setAllocated(std::uint64_t block) { allocated_.at(block) = true; }
    void setFree(std::uint64_t block) { allocated_.at(block) = false; }
    /// Blocks that wait in the queue of freed ones: first and count. The bitmap calls them in use.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> freeQueue;

    std::uint64_t offsetOf(std::uint64_t block) const
    {
        return options_.base + block * options_.blockBytes;
    }
    std::uint64_t leafBlock(std::size_t leaf) const
    {
        return volumes_[0].nodes.at(firstLeafOID + leaf).block;
    }
    std::uint64_t xid() const { return xid_; }
    std::uint64_t superblock() const { return superblock_; } ///< block of the newest checkpoint's
    std::uint64_t volumeSuperblock() const { return volumes_[0].superblock; }
    std::uint64_t containerMap() const { return containerMap_; } ///< block
    /// Gives a block its checksum.
    void sign(std::uint64_t block, std::uint64_t count = 1);
    /// Gives every block that has an object its checksum.
    void renewChecksums();

    static constexpr std::uint64_t blockSize = 4096;
    static constexpr std::uint64_t spaceManagerOID = 1024, reaperOID = 1025, volumeOID = 1026,
                                   queueOID = 1027;
    static constexpr std::uint64_t rootOID = 1100, firstLeafOID = 1101;
    static constexpr std::uint64_t descriptorBlocks = 12; ///< two for each checkpoint
    /// Of the one chunk. Before it lie the superblock and the two areas of the checkpoints, which
    /// are as long as each other.
    static constexpr std::uint64_t bitmapBlock = 1 + 2 * descriptorBlocks;

private:
    struct Node {
        std::uint64_t block = 0;
        std::uint64_t xid = 0;
        Leaf records;
    };
    struct VolumeState {
        std::uint64_t superblock = 0;                 ///< block
        std::uint64_t xid = 0;                        ///< of the superblock
        std::map<std::uint64_t, Node> nodes;          ///< of the file-system tree, by oid
        std::multimap<std::uint64_t, Node> heldNodes; ///< versions that its object map keeps
        std::vector<std::uint64_t> namedNodes;        ///< that only its index names
    };
    struct Field {
        std::uint64_t at, value;
        int width;
    };
    struct NodeKind {
        std::uint32_t subtype = 14;
        std::uint16_t level = 0;
        bool isRoot = false;
        std::uint16_t fixedKey = 0, fixedValue = 0; ///< 0: the table of contents says
    };

    std::uint64_t allocate(std::uint64_t count = 1);
    void put(std::uint64_t block, std::initializer_list<Field> fields);
    void header(
        std::uint64_t block, std::uint64_t oid, std::uint32_t type, std::uint32_t subtype = 0);
    void writeNode(std::uint64_t block, std::uint64_t oid, std::uint32_t storage,
        const NodeKind& kind, const std::vector<Record>& records);
    /// An object's versions stand from the oldest to the newest.
    std::uint64_t writeObjectMap(const std::multimap<std::uint64_t, Node>& objects);
    /// The oid of a volume.
    static std::uint64_t oidOf(std::size_t volume) { return volumeOID + volume * 100; }
    void writeVolume(std::size_t volume);
    void writeCheckpoint();

    Options options_;
    std::uint64_t xid_ = 0;
    std::uint64_t nextFree_;
    Leaf snapshots_; // records of the tree that lists them
    std::uint64_t superblock_ = 0, containerMap_ = 0;
    std::vector<bool> allocated_;
    std::vector<VolumeState> volumes_;
};
