#pragma once

#include "VintrelCore/FileSystems/APFS/Budget.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <unordered_set>
#include <utility>

class DiskSource;

/// Blocks of a container in a row.
struct APFSBlocks {
    std::uint64_t first = 0;
    std::uint64_t end = 0; ///< the block behind the last one
};

/// The blocks of one container, numbered from its start, and how many of them may be read in all: a
/// sound container's are read once or twice each, but the trees of a made-up one can share nodes.
/// Used by one thread at a time; the source must outlive it.
class APFSBlockReader {
public:
    /// `base`: where the container begins, in bytes on the source. `blockCount` 0: not known.
    APFSBlockReader(
        DiskSource& source, std::uint64_t base, std::uint64_t blockSize, std::uint64_t blockCount);

    DiskSource& source() const { return source_; }
    std::uint64_t base() const { return base_; }
    std::uint64_t blockSize() const { return blockSize_; } ///< in bytes; 4096 … 65,536
    std::uint64_t blockCount() const { return blockCount_; }

    /// The place of a block on the source, in bytes; none for one beyond the source's end.
    std::optional<std::uint64_t> offsetOf(std::uint64_t block) const;
    /// The blocks that a range of bytes on the source touches. It begins behind the container's
    /// start.
    APFSBlocks blocksAt(std::uint64_t offset, std::uint64_t length) const;
    /// Whether a pointer can mean this block. Never so for 0, where the superblock is.
    bool isValid(std::uint64_t block) const;

    /// Reads a valid block into `buffer`, which gets its size. False, and nothing is read, for a
    /// block that is not valid and when the budget is used up.
    bool read(std::uint64_t block, Bytes& buffer);

    /// How many blocks `read` has met since this was asked last that cannot be read wholly. Each
    /// block counts once.
    std::uint64_t takeUnreadable() { return std::exchange(newUnreadable_, 0); }

    /// What the source has from byte `offset` on: at most `count` bytes, fewer at its end.
    static Bytes readAvailable(DiskSource& source, std::uint64_t offset, std::uint64_t count);

private:
    DiskSource& source_;
    const std::uint64_t base_;
    const std::uint64_t blockSize_;
    const std::uint64_t blockCount_;
    APFSBudget readBudget_;
    std::unordered_set<std::uint64_t> unreadable_; // blocks
    std::uint64_t newUnreadable_ = 0;
};
