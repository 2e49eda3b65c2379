#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/FileSystems/APFS/TreeKeys.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <vector>

/// Leaves of older states that step in for parts of a tree which cannot be read. A leaf tells of
/// all keys between its first and its last one, also that there was no record; so the newest leaf
/// there counts, and an older one only where no newer one tells of anything. Used by one thread at
/// a time; the blocks must outlive it.
class APFSStandIns {
public:
    /// What the leaves give to the records.
    enum class Role {
        standIn, ///< older versions of what is lost
        tree,    ///< all that there is
    };

    APFSStandIns(APFSBlockReader& blocks, bool isHashed, Role role = Role::standIn)
        : blocks_(blocks)
        , isHashed_(isHashed)
        , role_(role)
    {
    }

    /// Offers a leaf that was read from this block. Kept when it tells of anything in `lost`.
    void offer(const APFSKeyRanges& lost, std::uint64_t block, ByteView leaf,
        bool isHeldBySnapshot = false);

    /// Adds to `records` what the leaves have of the lost keys. What they tell of is lost no more.
    /// Forgets the leaves. False when there was none.
    bool fill(APFSKeyRanges& lost, APFSFileRecords& records);

private:
    struct Candidate {
        std::uint64_t block = 0;
        APFSFileRecords::LeafVersion version;
        APFSKeyRange keys;
    };

    APFSBlockReader& blocks_;
    const bool isHashed_;
    const Role role_;
    std::vector<Candidate> candidates_;
};
