#pragma once

#include "VintrelCore/FileSystems/APFS/Checkpoints.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

/// A volume's superblock: the one of its versions by which the volume is read.
struct APFSVolumeSuperblock {
    enum class Trust {
        sound,
        damaged, ///< its checksum is wrong, so that no single flag of it is believed
        lost,    ///< no version is left; all fields are 0
    };

    APFSFormat::VolumeSuperblock stored {};
    std::uint64_t oid = 0;
    bool isDeleted = false; ///< the container has the volume no more
    Trust trust = Trust::sound;
    std::string_view note {}; ///< what the user should know of the choice, in Danish; or empty

    /// Whether a whole block is a volume's superblock with the right checksum.
    static bool isSound(ByteView block);

    /// The newest sound version of the superblock of the volume with this oid, or what is left of
    /// it. None where no volume can be told of: for oid 0, and when no object map can be read.
    static std::optional<APFSVolumeSuperblock> find(
        APFSBlockReader& blocks, APFSCheckpoints& checkpoints, std::uint64_t oid);
    /// The newest sound superblocks of volumes that only older checkpoints have.
    static std::vector<APFSVolumeSuperblock> findDeleted(APFSCheckpoints& checkpoints);
};
