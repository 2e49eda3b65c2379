#pragma once

#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/ObjectMaps.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The checkpoints that a container's descriptor area still has, and the one by which the container
/// is read: the newest one whose object map can be used. Used by one thread at a time; the blocks
/// must outlive it.
class APFSCheckpoints {
public:
    /// `first`: the superblock with which to begin, which lies at byte `firstOffset`.
    APFSCheckpoints(APFSBlockReader& blocks, ByteView first, std::uint64_t firstOffset);

    /// Those of a container all of whose superblocks are lost. `volumes`: where superblocks of its
    /// volumes were found.
    APFSCheckpoints(APFSBlockReader& blocks, std::vector<APFSObjectVersion> volumes);

    /// Of the checkpoint by which the container is read.
    const APFSFormat::ContainerSuperblock& superblock() const { return superblock_; }
    /// Its transaction. Objects of later ones are not accepted. The largest number there is when no
    /// superblock says.
    std::uint64_t xid() const { return xid_; }
    /// The blocks of the volumes' superblocks, by oid. Empty when no checkpoint has a usable map.
    const APFSObjectMaps::BlockByOID& objectMap() const { return objectMap_; }
    /// What the user should know, in Danish.
    const std::vector<std::string>& notes() const { return notes_; }

    /// The oids of volumes that older checkpoints have and this one has not.
    std::vector<std::uint64_t> deletedVolumes() const;
    /// The superblocks that older checkpoints have of a volume, newest first.
    std::vector<Bytes> olderSuperblocks(std::uint64_t volumeOID);

private:
    using Checkpoint = APFSSuperblock::Place;

    void findInDescriptorArea();
    void chooseUsable();
    Bytes read(const Checkpoint& checkpoint) const;
    /// The superblocks of the newest checkpoints of this container up to the one that is read.
    std::vector<APFSFormat::ContainerSuperblock> states() const;
    std::vector<APFSObjectVersion> versionsOfVolumes();

    APFSBlockReader& blocks_;
    APFSFormat::ContainerSuperblock superblock_ {};
    std::uint64_t xid_;
    APFSObjectMaps::BlockByOID objectMap_;
    std::vector<std::string> notes_;
    std::vector<Checkpoint> checkpoints_;                          // the sound ones, newest first
    std::optional<std::vector<APFSObjectVersion>> volumeVersions_; // none: not read yet
};
