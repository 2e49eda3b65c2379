#pragma once

#include "VintrelCore/FileSystems/APFS/ContainerState.h"
#include "VintrelCore/FileSystems/APFS/LeafLedger.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/FileSystems/APFS/Snapshots.h"
#include "VintrelCore/FileSystems/APFS/StandIns.h"
#include "VintrelCore/FileSystems/APFS/Tree.h"
#include "VintrelCore/FileSystems/APFS/TreeHistory.h"
#include "VintrelCore/FileSystems/APFS/TreeKeys.h"
#include "VintrelCore/FileSystems/APFS/VolumeSuperblock.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

class DiskSource;

/// What every volume of a container keeps, also one whose files cannot be read: the container.
class APFSVolumeContext : public DeepContext {
public:
    /// `uuid`: the volume's; zeros when it is not known.
    using UUID = std::array<std::uint8_t, 16>;

    APFSVolumeContext(std::shared_ptr<APFSContainerState> state, std::uint64_t oid, UUID uuid)
        : state_(std::move(state))
        , oid_(oid)
        , uuid_(uuid)
    {
    }

    /// Whether a superblock with this oid is one of the volume.
    bool isOf(std::uint64_t oid, const UUID& uuid) const { return oid == oid_ && uuid == uuid_; }
    /// Whether a leaf at this byte was read for the volume, or would be taken for one of its own.
    virtual bool hasLeaf(std::uint64_t offset, ByteView leaf) const;

    /// Whether the volume was read from this source.
    bool isOn(const DiskSource& source) const { return &state_->blocks().source() == &source; }
    /// See APFSParser::addUsedRanges.
    bool addUsedRanges(std::vector<ByteRange>& ranges) const
    {
        return state_->chances().addUsedRanges(state_->checkpoints().superblock(), ranges);
    }

protected:
    const std::shared_ptr<APFSContainerState> state_; // never none

private:
    const std::uint64_t oid_;
    const UUID uuid_;
};

/// Reads the files of one volume of a container. The search for loose leaves goes on with what it
/// knows, so that the volume keeps it. Used by one thread at a time.
class APFSVolumeReader : public APFSVolumeContext {
public:
    /// The volume that this superblock describes. Its files are not read where it is encrypted or
    /// no superblock is left; its deep context is no reader then. `progress` may be none.
    static std::unique_ptr<Volume> read(std::shared_ptr<APFSContainerState> state,
        const APFSVolumeSuperblock& superblock, const std::string& origin, WorkProgress* progress);

    /// A volume of which nothing but leaves at these bytes is left. None when they hold no file.
    /// `superblock`: what is known or guessed of it.
    static std::unique_ptr<Volume> fromLeaves(std::shared_ptr<APFSContainerState> state,
        const APFSVolumeSuperblock& superblock, std::span<const std::uint64_t> leafOffsets,
        const std::string& origin, WorkProgress* progress);

    bool hasLeaf(std::uint64_t offset, ByteView leaf) const override;

    /// See APFSParser::lostFiles.
    std::unique_ptr<FileNode> lostFiles(
        Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);

    /// See APFSParser::snapshots.
    VolumeList snapshots(Volume& volume, WorkProgress* progress);

private:
    /// The records of the live tree.
    struct LiveRecords {
        APFSFileRecords records;
        bool isDamaged = false; ///< some are missing, or of an older version
    };

    /// What was read of a tree that lacks some of its leaves.
    struct DamagedTree {
        APFSFileRecords live;
        APFSFileRecords old;
    };

    /// Which of a leaf's records are kept.
    enum class Objects { all, unknown };

    APFSVolumeReader(std::shared_ptr<APFSContainerState> state,
        const APFSFormat::VolumeSuperblock& superblock, std::uint64_t oid, FileNode& root);

    void readTrees(
        Volume& volume, const APFSFormat::VolumeSuperblock& superblock, WorkProgress* progress);
    LiveRecords readLive(APFSTreeHistory& history, std::uint64_t rootOID, WorkProgress* progress);
    void findLostKeys(
        APFSTreeHistory& history, std::uint64_t rootOID, const APFSTreeHistory::LiveLeaves& found);
    void fillLostKeys(APFSTreeHistory& history, APFSFileRecords& records);
    APFSFileRecords readOld(APFSTreeHistory& history, WorkProgress* progress);
    template <class Visit>
    void forEachLoose(
        std::span<const std::uint64_t> leafOffsets, WorkProgress* progress, Visit visit);
    std::unique_ptr<Volume> readSnapshot(const Volume& volume, const APFSSnapshot& snapshot,
        const APFSSameFiles& living, WorkProgress* progress) const;
    bool isOwnLeaf(ByteView leaf) const;
    void readGroup(
        Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);
    void fillFromLoose(
        Volume& volume, std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);
    APFSFileRecords readLoose(std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);
    void addLeaf(APFSFileRecords& records, std::uint64_t block, ByteView node,
        bool isHeldBySnapshot, Objects objects);

    APFSLeafLedger::Identity& identity_;         // the ledger's, which is part of the state
    std::optional<APFSFileTree> tree_;           // never none
    APFSFormat::VolumeSuperblock stored_ {};     // zeros where it is not known
    EntryStatus status_ = EntryStatus::existing; // of what the newest state of the tree has
    bool hasAllLeaves_ = false;                  // it was given its leaves; no others are sought
    APFSKeyRanges lostKeys_;                     // of the live tree: in no leaf that was found
    std::optional<DamagedTree> damaged_;         // none: no keys are lost
};
