#pragma once

#include "VintrelCore/FileSystems/NTFS/Shadow/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

class DiskSource;

namespace NTFSShadow {

/// What the reading of chains may still cost, in blocks. A chain that loops ends with it.
struct ChainBudget {
    std::uint64_t blocks = 0;
};

/// Walks the blocks of a chain on its volume, in order.
class ChainReader {
public:
    /// `base`: where the volume begins on the source, in bytes. `first`: of the chain, from there
    /// on; 0: the chain is empty.
    ChainReader(DiskSource& source, std::uint64_t base, RecordType type, std::uint64_t first,
        ChainBudget& budget);

    /// What follows the header of the next block, valid until the next call. None at the end, and
    /// where a block is not one of the chain.
    std::optional<ByteView> next();
    /// Whether the chain ended before its end.
    bool isDamaged() const { return isDamaged_; }

private:
    DiskSource& source_;
    const std::uint64_t base_;
    const RecordType type_;
    std::uint64_t next_;
    ChainBudget& budget_;
    bool isDamaged_ = false;
    Bytes block_;
};

} // namespace NTFSShadow
