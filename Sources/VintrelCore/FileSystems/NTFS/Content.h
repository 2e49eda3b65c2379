#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <optional>
#include <vector>

/// From the $DATA attributes of a file to its content.
namespace NTFSContent {

/// The fragments of one content put together.
struct Merged {
    RunList runs;
    std::uint64_t size = 0; ///< as claimed, or what the runs cover where the beginning is lost
    std::uint64_t initSize = 0;
    bool hasGaps = false;
};

/// None unless the first fragment lies in clusters. The fragments are left in the order of their
/// VCN.
std::optional<Merged> merge(const NTFSContext& context, std::vector<DataFragment>& fragments);

struct Content {
    FileData data;
    std::uint64_t size = 0; ///< in bytes
    Doubts doubts;
};

/// The content that the fragments, which are used up, make. A size that neither the volume nor the
/// source could hold is cut to what they could.
Content assemble(const NTFSContext& context, std::vector<DataFragment>& fragments);

} // namespace NTFSContent
