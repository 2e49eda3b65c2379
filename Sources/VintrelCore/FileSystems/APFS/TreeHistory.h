#pragma once

#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/ObjectMaps.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/FileSystems/APFS/TreeKeys.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <unordered_set>
#include <vector>

/// All versions of the nodes of one volume's file-system tree: those of its newest object map and,
/// once they are needed, those of the maps before it. Used by one thread at a time; the state must
/// outlive it.
class APFSTreeHistory {
public:
    /// A leaf that is to be read.
    struct Leaf {
        std::uint64_t block = 0;
        std::uint64_t oid = 0;
        bool isHeldBySnapshot = false;
    };

    /// The leaves of the live tree, by their place on the disk.
    struct LiveLeaves {
        std::vector<Leaf> leaves;
        std::vector<std::uint64_t> indexBlocks; ///< of the nodes that lead to them
        bool isDamaged = false;                 ///< nodes could not be read in their newest version
        /// Numbers of leaves that the index names and of which no newest version can be read.
        std::unordered_set<std::uint64_t> lost;
    };

    /// What is lost of a damaged tree.
    struct LostKeys {
        APFSKeyRanges keys;
        /// The index is damaged too: `keys` has all that it led to, also what leaves still have.
        bool isIndexLost = false;
    };

    /// Reads the newest object map of the volume with this superblock and oid. The live tree is
    /// that of transaction `xid`, or of the one before it that changed it last.
    APFSTreeHistory(APFSContainerState& state, const APFSFormat::VolumeSuperblock& superblock,
        std::uint64_t volumeOID, std::uint64_t xid);

    /// The leaves that the index leads to from the root. Of a damaged tree also those that the
    /// object map alone still knows.
    LiveLeaves findLiveLeaves(std::uint64_t rootOID);
    /// The keys of leaves that are lost, by the index as far as it can be read. `lost`: their
    /// numbers.
    LostKeys findLostKeys(
        std::uint64_t rootOID, const std::unordered_set<std::uint64_t>& lost, bool isHashed);
    /// The versions of all nodes whose blocks have not been read, by their place on the disk.
    std::vector<Leaf> unreadNodes();

    /// Reads a block that should be a certain node of the tree into `node`. A stale pointer finds
    /// another one there, or none.
    bool readNode(std::uint64_t block, std::uint64_t oid, Bytes& node);
    /// Tells the ledger which nodes the volume's object maps have.
    void registerOwner() const;

private:
    using Version = APFSObjectVersion;

    /// A node below one of the index.
    struct Child {
        std::uint64_t oid = 0;
        APFSKeyRange keys;
    };

    std::vector<Child> childrenOf(ByteView node, const APFSKeyRange& keys, bool isHashed) const;
    void loadOlderMaps();
    const Version* liveVersion(std::uint64_t oid) const;
    std::optional<std::uint64_t> readLiveVersion(std::uint64_t oid, Bytes& node);
    /// Reads a node of the live tree whose newest version cannot be read, in the newest one that
    /// can. Returns its block; none when there is none.
    std::optional<std::uint64_t> readOlderVersion(std::uint64_t oid, Bytes& node);

    APFSContainerState& state_;
    const std::uint64_t volumeOID_;
    const std::uint64_t xid_;
    const bool hasSnapshots_;
    std::vector<Version> live_;  // of the newest object map, by oid and transaction
    std::vector<Version> older_; // of the maps before it
    bool isLiveMapWhole_ = false;
    bool hasOlderMaps_ = false;
};
