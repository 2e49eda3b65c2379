#pragma once

#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/APFS/Structures.h"

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

/// Which blocks of a container are in use, as its newest checkpoint has it.
class APFSSpaceManager {
public:
    /// None when any part of it that says where the bitmaps are cannot be read. It must not outlive
    /// the container.
    static std::unique_ptr<APFSSpaceManager> load(APFSContainer& container);

    /// Whether any block of a range is in use. Blocks that were freed, but wait in a queue because
    /// an older checkpoint may still need them, are not. At most so many blocks are looked at as
    /// the largest file has that is worth it.
    bool isAnyAllocated(APFSContainer::Blocks blocks);

private:
    struct Chunk {
        std::uint64_t bitmapBlock = 0;
        bool isRead = false;
        Bytes bitmap; ///< empty: all blocks are free, or not read yet
    };

    using Places = std::unordered_map<std::uint64_t,
        APFSFormat::CheckpointMapping>; // of ephemeral objects, by oid

    explicit APFSSpaceManager(APFSContainer& container)
        : container_(container)
    {
    }

    bool loadChunks(const Places& places, std::uint64_t oid, std::uint64_t& freeQueueOID);
    bool loadChunkInfo(std::uint64_t number);
    void loadFreeQueue(const Places& places, std::uint64_t rootOID);
    const Bytes& bitmapOf(Chunk& chunk);

    APFSContainer& container_;
    std::uint64_t blocksPerChunk_ = 0;
    std::unordered_map<std::uint64_t, Chunk> chunks_; // by their number
    std::vector<APFSContainer::Blocks> freed_;        // ascending, apart from each other
};

/// Sorts ranges, and makes one of those that meet.
void sortAndMerge(std::vector<APFSContainer::Blocks>& ranges);
/// The first of sorted ranges that ends behind a block.
std::vector<APFSContainer::Blocks>::const_iterator firstEndingBehind(
    const std::vector<APFSContainer::Blocks>& ranges, std::uint64_t block);
