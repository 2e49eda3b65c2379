#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <unordered_set>

/// A version of a virtual object: where a transaction wrote it.
struct APFSObjectVersion {
    std::uint64_t oid = 0;
    std::uint64_t xid = 0;
    std::uint64_t block = 0;
    bool isDeleted = false; ///< since that transaction the object is no more
};

/// Reads object maps, which say where virtual objects lie. Maps of neighbouring checkpoints share
/// most of their nodes: each is read once by one of these. Used by one thread at a time; the blocks
/// must outlive it.
class APFSObjectMaps {
public:
    using BlockByOID = std::unordered_map<std::uint64_t, std::uint64_t>;

    explicit APFSObjectMaps(APFSBlockReader& blocks)
        : blocks_(blocks)
    {
    }

    /// Hands every version in the map at block `oid` to `visit`, from nodes that were not read
    /// before and that are not newer than `maxXID`. False when some of the map cannot be read.
    bool forEachVersion(std::uint64_t oid, std::uint64_t maxXID,
        const std::function<void(const APFSObjectVersion&)>& visit);

    /// The block of every virtual object in the map at block `oid`, by its newest version that is
    /// not newer than `maxXID`. Empty when the map cannot be read.
    static BlockByOID newestIn(APFSBlockReader& blocks, std::uint64_t oid, std::uint64_t maxXID);

private:
    APFSBlockReader& blocks_;
    std::unordered_set<std::uint64_t> visited_; // blocks of nodes
};
