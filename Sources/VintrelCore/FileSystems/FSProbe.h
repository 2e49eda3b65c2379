#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <optional>
#include <string_view>

class DiskSource;

/// Which file system begins at a place, told by signatures and a few consistency checks alone. Any
/// thread may ask.
namespace FSProbe {

/// NTFS, exFAT or FAT12/16/32 by the boot sector at `at`; none when it is no such sector.
std::optional<FileSystemType> detectBootSector(ByteView bytes, std::int64_t at = 0);

/// Whether an HFS+ or HFSX volume header lies at `at`.
bool isHFSPlusHeader(ByteView bytes, std::int64_t at = 0);

/// Whatever file system begins at byte `offset` of the source; none when none is known, and
/// `unknown` for an encrypted volume.
std::optional<FileSystemType> detect(DiskSource& source, std::uint64_t offset);

/// What a volume that begins at byte `offset` is encrypted with, as a name for the user; empty when
/// nothing says that it is encrypted.
std::string_view encryptionAt(DiskSource& source, std::uint64_t offset);

} // namespace FSProbe
