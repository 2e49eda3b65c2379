#pragma once

#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/ObjectMaps.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class DiskSource;

/// One APFS container on its source: from its superblocks to its volumes. Blocks are numbered from
/// its start. Used by one thread at a time.
class APFSContainer {
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

    /// The container that begins at byte `base`; none when no usable superblock lies there. The
    /// source must outlive it, and its volumes.
    static std::optional<APFSContainer> open(DiskSource& source, std::uint64_t base);
    /// The same by a superblock that lies at byte `superblockOffset`, where the one at `base` is
    /// lost.
    static std::optional<APFSContainer> open(
        DiskSource& source, std::uint64_t base, std::uint64_t superblockOffset);

    /// The transaction up to which objects are accepted; the largest number there is for no limit.
    std::uint64_t xid() const { return state_->checkpoints().xid(); }

    /// The volumes, in the order of their slots, and then those that only older checkpoints have,
    /// with all of their files as deleted. When cancelled, those that were read so far. To be
    /// called once: what was read is not read again. `progress` may be none.
    VolumeList volumes(const std::string& origin, WorkProgress* progress);

    /// The block of every virtual object in the object map at block `oid`, by its newest version
    /// that is not newer than `maxXID`. Empty when the map cannot be read.
    APFSObjectMaps::BlockByOID loadOMap(std::uint64_t oid, std::uint64_t maxXID);

    /// The entries of a B-tree node, up to the first one that leaves the node; none when it is no
    /// node, or a damaged one. The lengths, in bytes, are those of keys and of leaf values in nodes
    /// that do not say them.
    std::optional<Node> parseNode(ByteView bytes, int fixedKey, int fixedValue) const;

private:
    explicit APFSContainer(std::shared_ptr<APFSContainerState> state)
        : state_(std::move(state))
    {
    }

    std::unique_ptr<Volume> volume(
        std::uint64_t oid, const std::string& origin, WorkProgress* progress);

    std::shared_ptr<APFSContainerState> state_; // never none; the volumes' readers keep it too
};
