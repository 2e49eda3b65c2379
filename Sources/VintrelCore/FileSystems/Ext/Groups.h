#pragma once

#include "VintrelCore/FileSystems/Ext/Blocks.h"

#include <cstdint>
#include <optional>
#include <vector>

/// Where the parts of a block group lie.
struct ExtGroup {
    std::uint64_t blockBitmap = 0; ///< block; 0: not known
    std::uint64_t inodeBitmap = 0;
    std::uint64_t inodeTable = 0; ///< first block; 0: not known
    std::uint32_t usedInodes = 0; ///< at the table's beginning; those behind were never used
    bool hasBitmap = false;       ///< whether the bitmap was ever written
};

/// Where an inode lies.
struct ExtSlot {
    std::uint64_t block = 0; ///< of the table
    std::int64_t at = 0;     ///< byte of the block
};

/// The groups of a volume, by its descriptors.
class ExtGroups {
public:
    explicit ExtGroups(const ExtBlocks& blocks);
    /// By the first blocks of their inode tables alone, group by group; 0: not known.
    ExtGroups(const ExtBlocks& blocks, const std::vector<std::uint64_t>& tables);

    std::uint32_t count() const { return static_cast<std::uint32_t>(groups_.size()); }
    const ExtGroup& operator[](std::uint32_t group) const { return groups_[group]; }
    /// None for a number that no inode has, or where the table is not known.
    std::optional<ExtSlot> slotOf(std::uint32_t number) const;
    /// Says that the table of the inode has it, of which the descriptors do not know yet.
    void use(std::uint32_t number);
    /// Descriptors whose checksum does not fit.
    std::uint32_t unsoundCount() const { return unsoundCount_; }
    /// Groups whose place only a copy of the descriptors knows, or nothing at all.
    std::uint32_t healedCount() const { return healedCount_; }
    std::uint32_t missingCount() const { return missingCount_; }

    /// The number of the first inode in a block of an inode table; none for any other block.
    std::optional<std::uint32_t> firstInodeIn(std::uint64_t block) const;

private:
    /// Whether the flags and counts of a descriptor are those of now, and not of the making.
    enum class Trust { full, placesOnly };

    void load(std::uint32_t descriptorBlock, std::uint64_t at, Trust trust, bool wantsSound);
    void indexTables();
    void findTables();
    void findTablesIn(std::uint64_t first, std::uint64_t count);
    void noteTable(std::uint64_t block, ByteView bytes);
    std::vector<std::uint64_t> placesOf(std::uint32_t descriptorBlock) const;
    bool isSound(std::uint32_t group, ByteView descriptor) const;

    const ExtBlocks& blocks_;
    const ExtGeometry& geometry_;
    std::vector<ExtGroup> groups_;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> tables_; ///< first block and group, sorted
    std::uint32_t unsoundCount_ = 0;
    std::uint32_t healedCount_ = 0;
    std::uint32_t missingCount_ = 0;
};
