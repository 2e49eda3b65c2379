#pragma once

#include "VintrelCore/FileSystems/HFSPlus/Structures.h"

#include <cstdint>
#include <optional>

class LostVolumeSearch;

/// Finds where a volume begins of which only the catalog is left. Used by one thread.
namespace HFSPlusPlace {

struct Geometry {
    std::uint64_t base = 0;      ///< where the volume begins, in bytes on the source
    std::uint64_t blockSize = 0; ///< in bytes

    /// A fork that lies in one piece at a byte of the source, whole blocks behind `base`.
    HFSPlusFormat::ForkData forkAt(std::uint64_t offset, std::uint64_t size) const;
};

struct Placement {
    Geometry geometry;
    bool isCertain = false; ///< most files that can speak for a place speak for this one
    bool isByMap = false;   ///< no content speaks for it, but the map of blocks in use does
};

/// A catalog file in one piece, in bytes on the source.
struct CatalogPlace {
    std::uint64_t offset, size;
};

/// The place at which most of the catalog's files have contents of their kind. Where too few have,
/// a likely one at which the allocation file calls all blocks of the catalog and of its files used;
/// none when there is no such one either.
std::optional<Placement> find(LostVolumeSearch& search, const CatalogPlace& catalog);

} // namespace HFSPlusPlace
