#pragma once

#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Mapping.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileData.h"

#include <vector>

namespace NTFSShadow {

/// The pieces of a content that is placed as if the copy were the volume, in its order; holes are
/// left out.
std::vector<Mapping::Piece> locate(const Mapping& mapping, const FileData& data);

/// The same content with the places that it truly has on the source.
FileData relocated(const Mapping& mapping, FileData data);

/// What became of the clusters of a file that was deleted when the copy was made: the system kept
/// none of them for it. `map`: of the volume now.
ClusterUse useOf(
    std::span<const Mapping::Piece> pieces, const AllocationMap& map, const NTFSGeometry& geometry);

} // namespace NTFSShadow
