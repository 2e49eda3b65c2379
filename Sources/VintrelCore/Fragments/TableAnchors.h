#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Fragments/PiecedBytes.h"

#include <cstdint>
#include <optional>

namespace Fragments {

/// Whether a sector looks like one of the table that chains a compound file's sectors: mostly
/// numbers of which each is the next of the one before it.
bool mayBeSectorTable(ByteView sector);

/// What is to be added to a position in the file to get the place on the source, modulo 2^64, where
/// the sector of a table at `offset` is the one that the head of a compound file expects. `head`:
/// the file's first 512 bytes. None where it is another's.
std::optional<std::uint64_t> shiftBySectorTable(
    BlockCache& cache, std::uint64_t offset, ByteView head);

/// The same by the first entry of a compound file's directory.
std::optional<std::uint64_t> shiftByRootEntry(std::uint64_t offset, ByteView head);

/// The same by the first directory of a TIFF file, whose place the head tells.
std::optional<std::uint64_t> shiftByDirectory(
    BlockCache& cache, std::uint64_t offset, ByteView head);

} // namespace Fragments
