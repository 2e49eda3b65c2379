#pragma once

#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/FileSystems/Ext/Journal.h"

#include <limits>
#include <span>
#include <vector>

/// What an inode's slot held when a transaction had ended.
struct ExtSlotState {
    ExtSequence sequence = 0;
    ByteView slot;
};

/// A file or folder that had an inode for a while, and is no more.
struct ExtLife {
    /// The sequence of what is on the disk now.
    static constexpr ExtSequence now = std::numeric_limits<ExtSequence>::max();

    ExtInode inode;           ///< the last state in which it had a name
    Bytes slot;               ///< of that state
    ExtSequence born = 0;     ///< it has lived since then or since earlier
    ExtSequence died = now;   ///< it was gone when this transaction ended
    bool isStateDead = false; ///< no state with a name is left: `inode` is that of the dead one
};

namespace ExtLives {

/// Whether both are states of one file: systems give each new one another generation, and tools
/// that do not, another time of making.
bool isSameFile(const ExtInode& one, const ExtInode& other);

/// Those that had a slot and have it no more, by its states in ascending order. The last of them is
/// that of now.
std::vector<ExtLife> ended(
    const ExtGeometry& geometry, std::uint32_t number, std::span<const ExtSlotState> states);

} // namespace ExtLives
