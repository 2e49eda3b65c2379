#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class DiskSource;

/// ext2, ext3 and ext4: files and folders that exist, and those that have been deleted as far as
/// the journal, inodes and directories still know them. Any thread may call; a source is read by
/// one call at a time.
namespace ExtParser {

/// Whether a volume begins with these bytes: its first 4096, or fewer where the source ends. Needs
/// nothing but the magic number.
std::optional<FileSystemType> probe(ByteView head);

/// Whether a superblock with possible numbers begins with this sector.
bool looksLikeSuperblock(ByteView sector);

/// The volume that begins at byte `offset`; none when there is no superblock there that can be
/// used, or nothing behind it. `progress` may be none.
std::unique_ptr<Volume> parse(
    DiskSource& source, std::uint64_t offset, const std::string& origin, WorkProgress* progress);

/// The same by a superblock from anywhere.
std::unique_ptr<Volume> build(DiskSource& source, const ExtGeometry& geometry, ExtTrust trust,
    const std::string& origin, WorkProgress* progress);

/// The same of a volume of which only this is left, and another was made over.
std::unique_ptr<Volume> build(DiskSource& source, const ExtRemains& remains,
    const std::string& origin, WorkProgress* progress);

/// Adds the ranges of the source that a volume of `parse` has in use, as its bitmaps say. False,
/// and nothing added, when no bitmap can be read.
bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges);

} // namespace ExtParser
