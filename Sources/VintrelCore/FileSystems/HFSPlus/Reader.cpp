#include "VintrelCore/FileSystems/HFSPlus/Reader.h"

#include "VintrelCore/FileSystems/HFSPlus/LooseLeaves.h"
#include "VintrelCore/FileSystems/HFSPlus/LostVolumes.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"

namespace {

constexpr FileSystemType types[] = { FileSystemType::hfsplus };

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(
        HFSPlusParser::parse(request.source, request.offset, request.origin, request.progress));
}

} // namespace

const FileSystemReader hfsPlusReader {
    .types = types,
    .probe = HFSPlusParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = HFSPlusLostVolumes::find,
    .rebuildVolumes = nullptr,
    .findLostFolders = HFSPlusLooseLeaves::findLostFolders,
    .addUsedRanges = HFSPlusParser::addUsedRanges,
};
