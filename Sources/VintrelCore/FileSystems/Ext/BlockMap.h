#pragma once

#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <functional>
#include <vector>

/// Blocks of a file in a row.
struct ExtRun {
    std::uint64_t logical = 0;  ///< of the first one in the file
    std::uint64_t physical = 0; ///< of the first one in the volume
    std::uint64_t count = 0;
    bool isWritten = true; ///< otherwise they read as zeros

    std::uint64_t end() const { return logical + count; }
};

/// What an extent of a tree says; lengths above a limit stand for blocks that were never written.
ExtRun runOf(const ExtFormat::LeafExtent& extent);

/// Where a file lies.
struct ExtMapping {
    std::vector<ExtRun> runs;               ///< ascending, without overlaps
    std::vector<std::uint64_t> innerBlocks; ///< that say so, besides the inode
    bool isWhole = true;                    ///< whether all that is said of it could be read
    bool isSound = true;                    ///< whether all checksums fit

    std::uint64_t blockCount() const; ///< of the runs
};

/// How well a block does for what it should be.
enum class ExtFit : std::uint8_t {
    none,
    possible, ///< its numbers are, and it has no checksum or a wrong one
    proved,   ///< its checksum fits
};

/// Reads where files lie: extent trees and lists of blocks. What all files of a volume may ask for
/// together is bounded. Used by one thread at a time.
class ExtBlockMaps {
public:
    using Judge = std::function<ExtFit(ByteView block)>;
    /// Gives the state of a block that the judge takes for the best; empty when it takes none.
    using Lookup = std::function<Bytes(std::uint64_t block, const Judge& judge)>;

    explicit ExtBlockMaps(const ExtGeometry& geometry);

    /// The runs of a file up to its size. `inode` has neither inline content nor a fast link.
    ExtMapping read(const ExtInode& inode, const Lookup& lookup);
    /// The runs that nodes of its tree still say of a deleted file. The system empties the root,
    /// and leaves the places of the nodes below in it.
    ExtMapping readDeadTree(const ExtInode& inode, const Lookup& lookup);

    /// How well a block does as a node of the inode's extent tree, `depth` levels above the leaves.
    ExtFit judgeNode(const ExtInode& inode, ByteView block, std::uint16_t depth) const;
    /// How well a block does as a list of blocks.
    ExtFit judgeList(ByteView block) const;

    /// The pieces of a file of this size on the source.
    ExtentList place(const ExtMapping& mapping, std::uint64_t size) const;

private:
    /// A node or list that is still to be read.
    struct Open {
        std::uint64_t block = 0;
        std::uint64_t logical = 0;
        std::uint16_t depth = 0; ///< 0: its entries are extents, or blocks of the file
    };

    bool readNode(
        const ExtInode& inode, std::uint64_t block, const Lookup& lookup, ExtMapping& mapping);
    void readExtents(const ExtInode& inode, ByteView node, std::uint16_t depth,
        const Lookup& lookup, ExtMapping& mapping);
    void readLists(const ExtInode& inode, const Lookup& lookup, ExtMapping& mapping);
    void addExtent(ExtMapping& mapping, const ExtFormat::LeafExtent& extent);
    void addBlock(ExtMapping& mapping, std::uint64_t logical, std::uint64_t block);
    bool take(std::uint64_t& budget);

    const ExtGeometry geometry_;
    std::uint64_t nodesLeft_;
    std::uint64_t runsLeft_;
};
