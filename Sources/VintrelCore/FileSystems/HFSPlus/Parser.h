#pragma once

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

/// HFS+ and HFSX, existing files and those whose catalog records still lie in nodes that the
/// catalog no longer uses. Any thread may call; a source is read by one call at a time.
namespace HFSPlusParser {

/// Whether a volume begins with these bytes: its first 4096, or fewer where the source ends.
/// `hfsplus` for HFSX too; none when there is no volume header in the second kilobyte.
std::optional<FileSystemType> probe(ByteView head);

/// Whether a volume header with possible fields begins here. Needs its first 48 bytes.
bool isVolumeHeader(ByteView header);

/// Whether the header node of a catalog or an extents overflow file begins with this sector.
bool looksLikeTreeHeader(ByteView sector);

/// Whether a leaf node of a catalog begins with this sector: its descriptor and its first record
/// are possible.
bool looksLikeCatalogLeaf(ByteView sector);

/// The volume that begins at byte `offset`; none when there is no volume header, no usable catalog
/// or nothing in it. `progress` may be none. `found`: a volume header that was found elsewhere, the
/// alternate one above all, to be used instead of the one in the volume's second kilobyte.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> found = {});

/// Adds the ranges of the source that a volume of `parse` has in use, as its allocation file says.
/// False, and nothing added, when that cannot be read wholly.
bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges);

} // namespace HFSPlusParser
