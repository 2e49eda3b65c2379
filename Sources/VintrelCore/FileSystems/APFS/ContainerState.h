#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Budget.h"
#include "VintrelCore/FileSystems/APFS/Chances.h"
#include "VintrelCore/FileSystems/APFS/Checkpoints.h"
#include "VintrelCore/FileSystems/APFS/LeafLedger.h"
#include "VintrelCore/FileSystems/APFS/ObjectMaps.h"

#include <cstdint>
#include <vector>

class DiskSource;

/// What the volumes of one container share. It lives as long as the container or any volume's
/// reader, and knows of neither. Used by one thread at a time; the source must outlive it.
class APFSContainerState {
public:
    /// `first`: the superblock with which to begin, which lies at byte `firstOffset`; the container
    /// begins at byte `base`. It has a possible block size.
    APFSContainerState(
        DiskSource& source, std::uint64_t base, ByteView first, std::uint64_t firstOffset);
    /// A container of which no superblock is left. `volumes`: where superblocks of its volumes were
    /// found.
    APFSContainerState(DiskSource& source, std::uint64_t base, std::uint64_t blockSize,
        std::vector<APFSObjectVersion> volumes);
    APFSContainerState(const APFSContainerState&) = delete;
    APFSContainerState& operator=(const APFSContainerState&) = delete;

    APFSBlockReader& blocks() { return blocks_; }
    APFSCheckpoints& checkpoints() { return checkpoints_; }
    /// For the maps of the volumes, which share nodes with their older states.
    APFSObjectMaps& volumeMaps() { return volumeMaps_; }
    APFSLeafLedger& leaves() { return leaves_; }
    APFSChances& chances() { return chances_; }
    /// How many extents all files together may have: a made-up container could name the same ones
    /// in many files.
    APFSBudget& extentBudget() { return extentBudget_; }

private:
    APFSBlockReader blocks_; // first: the others read through it
    APFSCheckpoints checkpoints_;
    APFSObjectMaps volumeMaps_;
    APFSLeafLedger leaves_;
    APFSChances chances_;
    APFSBudget extentBudget_;
};
