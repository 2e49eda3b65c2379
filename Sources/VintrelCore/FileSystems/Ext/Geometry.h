#pragma once

#include "VintrelCore/FileSystems/Ext/Structures.h"

#include <cstdint>
#include <optional>
#include <string>

/// What a superblock says of its volume, each number in the range that the format allows.
struct ExtGeometry {
    /// Of a superblock, wherever it lies; none where its numbers are impossible. `base`: where the
    /// volume begins, in bytes on the source.
    static std::optional<ExtGeometry> from(
        const ExtFormat::Superblock& superblock, std::uint64_t base);

    ExtFormat::Superblock superblock;
    std::uint64_t base = 0;          ///< in bytes on the source
    std::uint64_t blockCount = 0;    ///< below 2^48
    std::uint32_t blockSize = 0;     ///< in bytes, 1024...65536
    std::uint32_t clusterBlocks = 1; ///< blocks in an allocation unit
    std::uint32_t inodeSize = 0;     ///< in bytes, 128...blockSize
    std::uint32_t descriptorSize = 0;
    std::uint32_t groupCount = 0;
    std::uint32_t checksumSeed = 0; ///< of everything but the superblock

    bool isCompatible(std::uint32_t feature) const;
    bool isIncompatible(std::uint32_t feature) const;
    bool isReadOnly(std::uint32_t feature) const;
    bool hasChecksums() const { return isReadOnly(ExtFormat::Feature::checksums); }

    std::uint64_t volumeSize() const { return blockCount * blockSize; }
    std::uint64_t offsetOf(std::uint64_t block) const { return base + block * blockSize; }
    bool isBlock(std::uint64_t block) const { return block > 0 && block < blockCount; }
    std::uint64_t firstBlockOf(std::uint32_t group) const;
    std::uint32_t groupOf(std::uint64_t block) const;
    std::uint32_t blocksPerGroup() const { return superblock.blocksPerGroup; }
    std::uint32_t inodesPerGroup() const { return superblock.inodesPerGroup; }
    std::uint64_t inodeCount() const;
    std::uint32_t inodesPerBlock() const { return blockSize / inodeSize; }
    std::uint64_t tableBlocks() const;      ///< of one group's inode table
    std::uint64_t descriptorBlocks() const; ///< behind a superblock, with those kept for more
    /// How many groups have their tables and bitmaps in a row; a power of two.
    std::uint32_t groupsTogether() const;
    /// Whether a copy of the superblock lies at the group's beginning.
    bool hasBackup(std::uint32_t group) const;
    std::string label() const;
};

namespace ExtSuperblock {

/// A superblock with possible numbers; none where there is no such one.
std::optional<ExtFormat::Superblock> decode(ByteView bytes);

/// Whether its checksum fits, or it has none.
bool isSound(ByteView bytes);

} // namespace ExtSuperblock
