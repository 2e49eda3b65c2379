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

/// Where the volume may begin, in bytes on the source, whose alternate header lies at byte
/// `offset`. The likeliest place comes first: a volume may be up to a block longer than its blocks,
/// in sectors. Empty for bytes that are no volume header.
std::vector<std::uint64_t> startsByAlternate(ByteView header, std::uint64_t offset);

/// Whether the catalog begins where a volume header says, if the volume begins at byte `offset`.
/// Copies of headers lie in many places, in the journal above all, and a catalog is long: this
/// reads one sector of it.
bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView header);

/// The volume that begins at byte `offset`; none when there is no volume header, no usable catalog
/// or nothing in it. `progress` may be none. `found`: a volume header that was found elsewhere, the
/// alternate one above all, to be used instead of the one in the volume's second kilobyte.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> found = {});

/// Adds the ranges of the source that a volume of `parse` has in use, as its allocation file says.
/// False, and nothing added, when that cannot be read wholly.
bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges);

} // namespace HFSPlusParser
