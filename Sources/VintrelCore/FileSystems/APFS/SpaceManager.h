#pragma once

#include "VintrelCore/FileSystems/APFS/BlockRanges.h"
#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

/// Which blocks of a container are in use, as one checkpoint has it. Used by one thread at a time.
class APFSSpaceManager {
public:
    /// The space manager of the checkpoint with this superblock; none when any part of it that says
    /// where the bitmaps are cannot be read. It must not outlive the blocks.
    static std::unique_ptr<APFSSpaceManager> load(
        APFSBlockReader& blocks, const APFSFormat::ContainerSuperblock& superblock);

    /// What is known of some blocks.
    struct Use {
        bool isAllocated = false; ///< one of them is in use
        bool isUnknown = false;   ///< the bitmap of some cannot be read
    };

    /// Looks for a block of a range that is in use, and reads the bitmaps that this needs. Blocks
    /// that were freed, but wait in a queue because an older checkpoint may still need them, are
    /// not in use. At most so many blocks are looked up as the largest file has that is worth it.
    Use useOf(APFSBlocks blocks);
    /// Adds all blocks that are in use, ascending. False, and nothing added, when any bitmap cannot
    /// be read.
    bool addAllocated(std::vector<APFSBlocks>& allocated);

    /// How many of the bitmaps that were needed could not be read.
    std::uint64_t lostBitmaps() const { return lostBitmaps_; }

private:
    struct Chunk {
        std::uint64_t bitmapBlock = 0;
        std::uint32_t blockCount = 0, freeCount = 0;
        bool isRead = false;
        bool isLost = false; ///< the bitmap cannot be read, or has another number of free blocks
        Bytes bitmap;        ///< empty: all blocks are free, or not known
    };

    /// Of ephemeral objects, by oid.
    using MappingByOID = std::unordered_map<std::uint64_t, APFSFormat::CheckpointMapping>;

    APFSSpaceManager(APFSBlockReader& blocks, std::uint64_t xid)
        : blocks_(blocks)
        , xid_(xid)
    {
    }

    static MappingByOID readCheckpointMaps(
        APFSBlockReader& blocks, const APFSFormat::ContainerSuperblock& superblock);
    /// The whole object; empty when it cannot be read, or is no space manager.
    Bytes readObject(const MappingByOID& mappings, std::uint64_t oid);
    bool loadChunks(ByteView object, const APFSFormat::SpaceManagerDevice& device);
    bool loadChunkAddresses(std::uint64_t number);
    bool loadChunkInfo(std::uint64_t number);
    void loadFreeQueue(const MappingByOID& mappings, std::uint64_t rootOID);
    void addFreed(ByteView key, std::optional<ByteView> value);
    bool isOfCheckpoint(const APFSFormat::ObjectHeader& object, std::uint64_t oid) const;
    static bool agreesWithCount(const Chunk& chunk);
    void readBitmap(Chunk& chunk);
    /// The chunk with this number, its bitmap read; null when nothing says what it uses.
    const Chunk* readableChunk(std::uint64_t number);
    void addAllocatedIn(
        const Chunk& chunk, std::uint64_t number, std::vector<APFSBlocks>& allocated) const;
    void addUnlessFreed(APFSBlocks blocks, std::vector<APFSBlocks>& allocated) const;

    APFSBlockReader& blocks_;
    const std::uint64_t xid_; // of the checkpoint
    std::uint64_t blocksPerChunk_ = 0;
    std::unordered_map<std::uint64_t, Chunk> chunks_; // by their number
    APFSBlockRanges freed_;
    std::uint64_t lostBitmaps_ = 0;
};
