#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

/// What every object of APFS has, its checksum and its type. Pure: any thread may ask.
namespace APFSParser {

/// The checksum that an object with these bytes should have: of everything behind its first eight
/// bytes, in whole 32-bit words.
std::uint64_t fletcher64(ByteView object);

/// Whether an object has the checksum that it says. Never so for one that says 0, or that is
/// shorter than 64 bytes.
bool checksumOK(ByteView object);

/// Whether the block at `at` is a leaf of a file-system tree. It must lie wholly inside the bytes.
bool looksLikeFSTreeLeaf(ByteView bytes, std::int64_t at = 0, std::uint64_t blockSize = 4096);

} // namespace APFSParser
