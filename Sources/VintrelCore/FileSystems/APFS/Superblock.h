#pragma once

#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>
#include <vector>

class DiskSource;

/// The one place where container superblocks are decoded. What takes no source is pure.
namespace APFSSuperblock {

/// Whether a block, of which the first 36 bytes are enough, says that it is one.
bool hasMagic(ByteView block);

/// The fields of a superblock. Those that the source's end cuts off are 0.
APFSFormat::ContainerSuperblock decode(ByteView block);

/// Whether a whole block is a superblock with the right type and checksum.
bool isSound(ByteView block);

/// A sound superblock of the checkpoint descriptor area.
struct Place {
    std::uint64_t xid = 0;    ///< never 0
    std::uint64_t offset = 0; ///< in bytes on the source
};

/// The sound ones in the descriptor area that `superblock` names, in the area's order. `base`:
/// where the container begins, in bytes.
std::vector<Place> findInArea(DiskSource& source, std::uint64_t base,
    const APFSFormat::ContainerSuperblock& superblock, std::uint64_t blockSize);

/// What says how large blocks and the container are: the newest sound superblock of `first` and
/// the area that it names, and `first` itself where none is sound.
APFSFormat::ContainerSuperblock newest(DiskSource& source, std::uint64_t base, ByteView first);

/// Whether a container can begin at byte `start` whose object map lies at this block. A physical
/// object knows the number of its own block, so that only the true start has it in the right place.
bool hasObjectMap(
    DiskSource& source, std::uint64_t start, std::uint64_t block, std::uint64_t blockSize);

/// The block at byte `offset`, as long as it says that blocks are, and cut at the source's end;
/// none when it is no superblock, or its block size is impossible. Its checksum may be wrong.
std::optional<Bytes> read(DiskSource& source, std::uint64_t offset);

} // namespace APFSSuperblock
