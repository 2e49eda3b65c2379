#pragma once

#include "VintrelCore/FileSystems/NTFS/DeepInfo.h"
#include "VintrelCore/FileSystems/NTFS/Geometry.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

class DiskSource;

/// NTFS: existing, deleted and orphaned files. All of it works on the caller's thread.
namespace NTFSParser {

/// The type of the file system that begins with these bytes; none when it is not NTFS. The first
/// 512 bytes are enough.
std::optional<FileSystemType> probe(ByteView head);

/// Where the volume begins, in bytes on the source, whose backup boot sector is this one at byte
/// `offset`: it lies behind the last sector that it counts. None when it is no boot sector of NTFS,
/// and where the volume would begin before the source.
std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset);

/// The volume that begins at byte `offset`; none when there is no NTFS volume, or its MFT cannot be
/// found. `boot`: a boot sector found elsewhere, to be used instead of the one at `offset`.
/// `partitionSize`: in bytes, 0 when it is not known; the backup boot sector lies at its end.
/// `volumes`: those that were read before; none is the result when the MFT is for the most part
/// that of others of them.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot = {}, std::uint64_t partitionSize = 0,
    std::span<const Volume* const> volumes = {});

} // namespace NTFSParser
