#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A snapshot of a volume.
struct APFSSnapshot {
    std::uint64_t xid = 0; ///< the last transaction that it has
    std::string name;      ///< as stored
    /// The volume as it was then. The object map is the volume's own, which keeps the versions that
    /// its snapshots need.
    APFSFormat::VolumeSuperblock superblock {};

    /// The snapshots that the volume with this superblock lists, oldest first. Those whose own
    /// superblock cannot be read are missing.
    static std::vector<APFSSnapshot> listOf(
        APFSBlockReader& blocks, const APFSFormat::VolumeSuperblock& volume);
};
