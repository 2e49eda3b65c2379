#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

/// The files and folders of a volume that are listed, each by its number. Used by one thread at a
/// time.
class APFSKnownObjects {
public:
    struct Object {
        std::uint64_t id = 0;
        std::uint64_t created = 0; ///< as stored; 0: not known
    };

    /// Adds objects that are not known yet, in any order.
    void add(const std::vector<Object>& objects);

    bool contains(std::uint64_t id) const { return createdOf(id).has_value(); }
    /// None for an object that is not known.
    std::optional<std::uint64_t> createdOf(std::uint64_t id) const;

private:
    std::vector<Object> objects_; // ascending
};

/// Keeps the books of a container's leaves: of which blocks the records are known, and which volume
/// a leaf belongs to. Nothing in a loose leaf says that: the number of the node is the container's,
/// and earlier containers in the same place had the same ones. Used by one thread at a time.
class APFSLeafLedger {
public:
    /// What tells a volume's leaves from those of others.
    struct Identity {
        std::uint64_t volumeOID = 0;
        bool isHashed = false;          ///< directory records have the hash of their name
        std::uint64_t nextObjectID = 0; ///< every object has a lower number; 0: not known
        std::uint64_t formatted = 0;    ///< when the volume was made, as stored; 0: not known
        APFSKnownObjects objects {};
    };

    explicit APFSLeafLedger(std::uint64_t blockSize)
        : blockSize_(blockSize)
    {
    }

    /// Registers a volume. The identity stays where it is as long as the ledger lives; the volume's
    /// reader adds to its objects.
    Identity& add(Identity identity);
    /// Tells that an object map of a volume has this node. The first volume that says so has it.
    void setOwner(std::uint64_t nodeOID, std::uint64_t volumeOID);

    /// Tells that the records of the leaf at this block are known.
    void markRead(std::uint64_t block) { readBlocks_.insert(block); }
    bool isRead(std::uint64_t block) const { return readBlocks_.contains(block); }

    /// Whether a leaf that no object map leads to is one of this volume's: another one's object map
    /// does not have its node, and no other volume's files agree better with those in it.
    bool isLeafOf(const Identity& volume, ByteView leaf) const;

private:
    std::optional<std::int64_t> agreement(const Identity& volume, ByteView leaf) const;

    const std::uint64_t blockSize_;
    std::deque<Identity> volumes_;
    std::unordered_map<std::uint64_t, std::uint64_t> owners_; // of nodes: the volume's oid
    std::unordered_set<std::uint64_t> readBlocks_;
};
