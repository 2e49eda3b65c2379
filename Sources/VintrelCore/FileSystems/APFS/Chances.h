#pragma once

#include "VintrelCore/FileSystems/APFS/BlockRanges.h"
#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/SpaceManager.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/DeletedClaims.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The chances of deleted files, which depend on what all volumes of a container use: they are
/// judged when all of them have been read. Used by one thread at a time; the blocks must outlive
/// it.
class APFSChances {
public:
    explicit APFSChances(APFSBlockReader& blocks)
        : blocks_(blocks)
    {
    }

    /// Tells which blocks are in use by what exists.
    void addInUse(APFSBlocks blocks) { inUse_.add(blocks); }
    /// Puts off a deleted file, which has extents. The node stays where it is until it is judged.
    void judgeLater(FileNode& node) { waiting_.push_back(&node); }
    /// Puts off what an older record says of a file that exists: that it has these blocks. The node
    /// was judged by all else, and stays where it is until then.
    void judgeStandInLater(FileNode& node, APFSBlocks blocks)
    {
        standIns_.push_back({ &node, blocks });
    }
    /// Tells of a piece of a deleted file, by the transaction that has it. The node stays where it
    /// is until the files that wait are judged.
    void addClaim(const DeletedClaims::Claim& claim) { claims_.add(claim); }
    /// Judges those that wait, by the space manager of the checkpoint with this superblock too.
    /// Returns what the user should know of that, in Danish; nothing when all was readable that was
    /// needed.
    std::optional<std::string> judgeWaiting(const APFSFormat::ContainerSuperblock& superblock);

    /// Adds the ranges of the source that the container has in use by that checkpoint. False, and
    /// nothing added, when any of it cannot be read.
    bool addUsedRanges(
        const APFSFormat::ContainerSuperblock& superblock, std::vector<ByteRange>& ranges);

private:
    /// A piece of a file that exists, by an older record.
    struct StandIn {
        FileNode* file; // not owning: it is in a volume's tree
        APFSBlocks blocks;
    };

    void judgeByClaims();
    void judgeStandIns();
    void loadSpaceManager(const APFSFormat::ContainerSuperblock& superblock);
    Doubts doubtsOf(const FileNode& node);
    ClusterUse useOf(const ExtentList& extents);
    APFSSpaceManager::Use useOf(APFSBlocks blocks);

    APFSBlockReader& blocks_;
    APFSBlockRanges inUse_;
    std::vector<FileNode*> waiting_; // not owning: they are in the volumes' trees
    std::vector<StandIn> standIns_;
    std::unique_ptr<APFSSpaceManager> spaceManager_; // none: not read, or cannot be
    bool hasAskedSpaceManager_ = false;
    DeletedClaims claims_ { DeletedClaims::SameTime::theyShareThem }; // of one state: clones
};
