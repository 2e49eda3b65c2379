#pragma once

#include "VintrelCore/FileSystems/APFS/Structures.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

class DiskSource;

/// The one place where container superblocks are decoded. All but `read` is pure.
namespace APFSSuperblock {

/// Whether a block, of which the first 36 bytes are enough, says that it is one.
bool hasMagic(ByteView block);

/// The fields of a superblock. Those that the source's end cuts off are 0.
APFSFormat::ContainerSuperblock decode(ByteView block);

/// Whether a whole block is a superblock with the right type and checksum.
bool isSound(ByteView block);

/// The block at byte `offset`, as long as it says that blocks are, and cut at the source's end;
/// none when it is no superblock, or its block size is impossible. Its checksum may be wrong.
std::optional<Bytes> read(DiskSource& source, std::uint64_t offset);

} // namespace APFSSuperblock
