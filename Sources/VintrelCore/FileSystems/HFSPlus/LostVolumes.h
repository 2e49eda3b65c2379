#pragma once

class LostVolumeSearch;

/// The volumes of HFS+ that a sweep met something of and no table names. Used by one thread.
namespace HFSPlusLostVolumes {

/// Finds volumes by their headers, at first those that lie at their own place; then by alternate
/// ones; then by headers whose catalog has lost its header node; last by catalogs that no header
/// leads to.
void find(LostVolumeSearch& search);

} // namespace HFSPlusLostVolumes
