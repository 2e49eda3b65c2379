#pragma once

#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <span>

// Blocks of a folder's index ("NTFS Documentation" of the Linux-NTFS project, Index Record and
// Index Entry).

namespace NTFSParser {

/// How many bytes tell the size of an index block.
inline constexpr std::size_t indexHeaderSize = 40;

/// The size in bytes of the index block that begins with these; none when they are no index block.
std::optional<std::size_t> sizeOfIndexBlock(ByteView header);

/// The folder that the entries of a whole index block name as theirs. None when the block is
/// damaged or has no entries, and when they do not agree. `bytes` are changed: the ends of their
/// sectors get back what the update sequence keeps of them.
std::optional<FileReference> folderOfIndexBlock(std::span<std::uint8_t> bytes);

/// Calls `visit` with the file of every entry of a whole index block and the name that it has
/// there. Entries that were removed are among them as far as the ones behind them, which move up,
/// have left something. Nothing for a damaged block. `bytes` are changed as above.
void forEachIndexEntry(std::span<std::uint8_t> bytes,
    const std::function<void(FileReference file, FNInfo& name)>& visit);

} // namespace NTFSParser
