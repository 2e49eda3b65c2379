#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <optional>

class DiskSource;

/// Which file system begins at a place, told by signatures and a few consistency checks alone.
namespace FSProbe {

/// NTFS, exFAT or FAT12/16/32 by the boot sector at `at`.
std::optional<FileSystemType> detectBootSector(ByteView bytes, std::int64_t at = 0);

/// Whether an HFS+ or HFSX volume header lies at `at`.
bool isHFSPlusHeader(ByteView bytes, std::int64_t at = 0);

/// The boot sector of a volume that begins at byte `offset`: `found` when there is one, which was
/// found elsewhere, else what lies there.
Bytes bootSector(DiskSource& source, std::uint64_t offset, std::optional<ByteView> found);

/// Whatever file system begins at byte `offset` of the source.
std::optional<FileSystemType> detect(DiskSource& source, std::uint64_t offset);

} // namespace FSProbe
