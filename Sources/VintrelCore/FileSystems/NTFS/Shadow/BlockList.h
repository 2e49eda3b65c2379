#pragma once

#include "VintrelCore/FileSystems/NTFS/Shadow/Chain.h"

#include <cstdint>
#include <optional>
#include <vector>

class DiskSource;

namespace NTFSShadow {

/// Which blocks of a volume a shadow copy has kept, because they changed after it was made and
/// before the next one was.
class BlockList {
public:
    /// What the copy has of a block. Offsets are in bytes from the start of the volume.
    struct Block {
        std::uint64_t original = 0; ///< the block of the volume
        std::uint64_t place = 0;    ///< where its content lies; its own place where it was not kept
        std::uint64_t overlay = 0;  ///< where sectors of it lie that were kept by themselves
        std::uint32_t overlaid = 0; ///< which these are: bit n for sector n
        bool isCopied = false;      ///< whether `place` is a copy, and not a block of the volume
    };

    /// Reads the chain of lists that begins at byte `first` of the volume.
    static BlockList read(
        DiskSource& source, std::uint64_t base, std::uint64_t first, ChainBudget& budget);

    /// The first listed block that ends behind byte `offset` of the volume; none when there is
    /// none.
    const Block* firstEndingBehind(std::uint64_t offset) const;
    /// Whether some of the list is lost.
    bool isDamaged() const { return isDamaged_; }

private:
    std::vector<Block> blocks_; ///< ascending by original, each once
    bool isDamaged_ = false;
};

} // namespace NTFSShadow
