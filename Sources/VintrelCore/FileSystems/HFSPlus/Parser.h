#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class DiskSource;

/// HFS+ and HFSX, existing files and those whose catalog records still lie in nodes that the
/// catalog no longer uses.
namespace HFSPlusParser {

/// The volume that begins at byte `offset`; none when there is no volume header, no usable catalog
/// or nothing in it. `progress` may be none. `found`: a volume header that was found elsewhere, the
/// alternate one above all, to be used instead of the one in the volume's second kilobyte.
std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> found = {});

/// Whether the catalog begins where a volume header says, if the volume begins at byte `offset`.
/// Copies of headers lie in many places, in the journal above all, and a catalog is long: this
/// reads one sector of it.
bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView header);

} // namespace HFSPlusParser
