#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Model/Volume.h"

#include <memory>
#include <string>

namespace NTFSParser {

/// Links the records of an MFT into a tree of files, with their chances. Files whose folder is lost
/// hang below a folder of their own. `mft`: where the records lie; empty when that is not one MFT.
std::unique_ptr<Volume> buildVolume(
    const NTFSContext& context, MFTRecords records, MappedStream mft, const std::string& origin);

} // namespace NTFSParser
