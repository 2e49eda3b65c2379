#pragma once

#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/APFS/Records.h"
#include "VintrelCore/FileSystems/APFS/Tree.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Reads one volume of a container. The search for loose leaves goes on with what it knows.
class APFSVolumeReader : public DeepContext {
public:
    /// `oid`: the volume's own, in the container.
    APFSVolumeReader(
        std::shared_ptr<APFSContainer> container, ByteView superblock, std::uint64_t oid);
    ~APFSVolumeReader() override;

    /// Reads the volume that `reader` is for; it keeps the reader unless its files cannot be read.
    static std::unique_ptr<Volume> read(std::unique_ptr<APFSVolumeReader> reader,
        const std::string& origin, WorkProgress* progress);

    APFSContainer& container() const { return *container_; }
    /// See APFSParser::lostFiles.
    std::unique_ptr<FileNode> lostFiles(
        std::span<const std::uint64_t> leafOffsets, WorkProgress* progress);

private:
    using Version = APFSContainer::Version;

    /// A leaf that is to be read.
    struct Leaf {
        std::uint64_t block = 0;
        std::uint64_t oid = 0;
        bool isHeldBySnapshot = false;
    };

    void readTrees(Volume& volume, WorkProgress* progress);
    void loadLiveMap();
    void loadOlderMaps();
    const Version* liveVersion(std::uint64_t oid) const;
    bool readNode(std::uint64_t block, std::uint64_t oid);
    bool readAnyVersion(std::uint64_t oid, std::uint64_t& block);
    std::vector<Leaf> findLiveLeaves(std::uint64_t rootOID);
    APFSFileRecords readLive(std::uint64_t rootOID, WorkProgress* progress);
    APFSFileRecords readOld(WorkProgress* progress);
    void addLeaf(
        APFSFileRecords& records, std::uint64_t block, bool isHeldBySnapshot, bool onlyUnknown);
    std::optional<std::int64_t> agreementOf(ByteView leaf) const;
    bool isOwnLeaf(ByteView leaf) const;

    std::shared_ptr<APFSContainer> container_;
    const Bytes superblock_;
    const std::uint64_t oid_;
    bool isHashed_ = false; // directory records have the hash of their name
    bool hasSnapshots_ = false;
    std::uint64_t nextObjectID_ = 0; // every object of the volume has a lower number
    std::vector<Version> live_;      // of the newest object map, by oid and transaction
    std::vector<Version> older_;     // of the maps before it
    bool olderLoaded_ = false;
    bool isDamaged_ = false; // nodes of the tree cannot be read
    Bytes node_;             // read last
    std::optional<APFSFileTree> tree_;
};
