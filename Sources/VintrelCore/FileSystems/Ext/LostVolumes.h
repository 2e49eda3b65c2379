#pragma once

class LostVolumeSearch;

namespace ExtLostVolumes {

/// Finds volumes by superblocks that a sweep met, copies among them, and what is left of a volume
/// in the inode tables of one that was made over it.
void find(LostVolumeSearch& search);

} // namespace ExtLostVolumes
