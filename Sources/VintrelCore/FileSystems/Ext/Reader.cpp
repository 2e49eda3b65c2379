#include "VintrelCore/FileSystems/Ext/Reader.h"

#include "VintrelCore/FileSystems/Ext/LooseLists.h"
#include "VintrelCore/FileSystems/Ext/LostVolumes.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"

namespace {

constexpr FileSystemType types[] = { FileSystemType::ext };

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(
        ExtParser::parse(request.source, request.offset, request.origin, request.progress));
}

} // namespace

const FileSystemReader extReader {
    .types = types,
    .probe = ExtParser::probe,
    .load = load,
    .quickScanNote = "ext-filsystemer understøttes kun via dyb scanning.",
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = ExtLostVolumes::find,
    .rebuildVolumes = nullptr,
    .findLostFolders = ExtLooseLists::findLostFolders,
    .addUsedRanges = ExtParser::addUsedRanges,
};
