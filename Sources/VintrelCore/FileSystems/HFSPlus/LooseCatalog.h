#pragma once

#include <cstdint>

class DiskSource;
class LostVolumeSearch;

/// Catalogs and leaves of catalogs that no volume header leads to. Used by one thread.
namespace HFSPlusLooseCatalog {

/// Whether a byte of the source lies inside a volume of HFS+ that is known or found.
bool isInVolume(const LostVolumeSearch& search, std::uint64_t offset);

/// The size of the leaf node that begins at a byte; 0 when none does.
std::uint32_t nodeSizeAt(DiskSource& source, std::uint64_t offset);

/// Finds the volumes of catalogs that lie outside all others. Where a volume begins follows from a
/// copy of its header that lies anywhere, as in its journal; or else from files that were found by
/// their content, when the catalog names files of the same kind and size, or from the allocation
/// file.
void findVolumes(LostVolumeSearch& search);

} // namespace HFSPlusLooseCatalog
