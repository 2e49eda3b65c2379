#pragma once

#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <vector>

namespace NTFSRebuild {

/// The volumes whose MFT still has record 0, which describes the MFT itself, or the copy of it:
/// they are as good as with a boot sector. Takes their records out of `loose`, and those in the
/// mirrors of their MFTs. When cancelled, the volumes that were built so
/// far.
VolumeList buildSelfDescribed(RecordReader& reader, std::vector<LooseRecord>& loose,
    const NTFSParser::RebuildHints& hints, const WorkProgress* progress);

} // namespace NTFSRebuild
