#pragma once

#include "VintrelCore/FileSystems/APFS/BlockRanges.h"
#include "VintrelCore/FileSystems/APFS/BlockReader.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <memory>
#include <unordered_map>

/// Which blocks of a container are in use, as one checkpoint has it. Used by one thread at a time.
class APFSSpaceManager {
public:
    /// The space manager of the checkpoint with this superblock; none when any part of it that says
    /// where the bitmaps are cannot be read. It must not outlive the blocks.
    static std::unique_ptr<APFSSpaceManager> load(
        APFSBlockReader& blocks, const APFSFormat::ContainerSuperblock& superblock);

    /// Looks for a block of a range that is in use, and reads the bitmaps that this needs. Blocks
    /// that were freed, but wait in a queue because an older checkpoint may still need them, are
    /// not in use. At most so many blocks are looked up as the largest file has that is worth it.
    bool findAllocated(APFSBlocks blocks);

private:
    struct Chunk {
        std::uint64_t bitmapBlock = 0;
        bool isRead = false;
        Bytes bitmap; ///< empty: all blocks are free, or not read yet
    };

    /// Of ephemeral objects, by oid.
    using MappingByOID = std::unordered_map<std::uint64_t, APFSFormat::CheckpointMapping>;

    explicit APFSSpaceManager(APFSBlockReader& blocks)
        : blocks_(blocks)
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
    const Bytes& bitmapOf(Chunk& chunk);

    APFSBlockReader& blocks_;
    std::uint64_t blocksPerChunk_ = 0;
    std::unordered_map<std::uint64_t, Chunk> chunks_; // by their number
    APFSBlockRanges freed_;
};
