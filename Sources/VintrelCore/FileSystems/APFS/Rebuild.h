#pragma once

class LostVolumeSearch;

/// Volumes of containers of which no superblock leads to them any more.
namespace APFSRebuild {

/// Puts volumes together from their own superblocks and object maps where these are left, and from
/// leaves of file-system trees that belong to no volume which is known or was found. The container
/// begins where its object maps are in the blocks that they say. To be called when all volumes have
/// been found that anything leads to.
void rebuildVolumes(LostVolumeSearch& search);

} // namespace APFSRebuild
