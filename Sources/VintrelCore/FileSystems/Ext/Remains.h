#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"

#include <optional>

struct DeepScanResult;

/// Where the parts of a volume without checksums lay that another one was made over. Used by one
/// thread at a time.
namespace ExtRemainders {

/// The least size of a slot in a table of inodes, in bytes.
constexpr std::int64_t leastSlot = 128;

/// Whether this slot may hold the inode of a directory, as volumes without extents have it.
bool looksLikeFolderInode(ByteView slot);

/// Whether a journal begins with this sector.
bool looksLikeJournal(ByteView sector);

/// What is left of such a volume below `now`, which begins where that one did and has blocks,
/// groups and inodes of the same size. Directories tell their own numbers, and so where the tables
/// of their inodes lay. None where too few agree.
std::optional<ExtRemains> find(const ExtContext& now, const DeepScanResult& finds);

} // namespace ExtRemainders
