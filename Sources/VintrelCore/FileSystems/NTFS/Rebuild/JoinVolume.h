#pragma once

#include "VintrelCore/FileSystems/NTFS/Rebuild.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <vector>

namespace NTFSRebuild {

/// Hangs those records into the tree of a volume that lie on it and were its own: records of a
/// piece of its MFT that nothing names any more, and those of pieces that it had before. A record
/// counts as the volume's own when it was written after the volume was made, when no file of the
/// volume has it as content, and when its folder, by number and sequence number, is one of the
/// volume's. Takes them out of `loose`. When cancelled, the tree stays as it is.
void joinVolume(RecordReader& reader, const NTFSParser::ListedVolume& listed,
    std::vector<LooseRecord>& loose, const WorkProgress* progress);

} // namespace NTFSRebuild
