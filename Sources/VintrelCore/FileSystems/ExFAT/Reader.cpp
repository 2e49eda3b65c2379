#include "VintrelCore/FileSystems/ExFAT/Reader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/RowHelpers.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"

namespace {

constexpr FileSystemType types[] = { FileSystemType::exfat };

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(ExFATParser::parse(
        request.source, request.offset, request.origin, request.progress, request.boot));
}

void rebuildVolumes(LostVolumeSearch& search)
{
    rebuildFromDirectories<ExFATDeepInfo>(
        search, search.finds().exfatDirSectors, ExFATParser::looseSectors, ExFATParser::rebuild);
}

std::vector<ExtraFolder> findLostFolders(DiskSource& /*source*/, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress)
{
    const auto sectors = ExFATParser::looseSectors(finds.exfatDirSectors, volumes);
    return lostFolders(volumes, types, progress, [&](Volume& volume) {
        return ExFATParser::lostEntries(
            volume, sectorsOf<ExFATDeepInfo>(volume, sectors), progress);
    });
}

bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges)
{
    const auto* info = dynamic_cast<const ExFATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->context->bitmapUnavailable())
        return false;
    const auto& context = *info->context;
    addUsedClusters(volume, context.geometry().heap, context.used(), source.size(), ranges);
    return true;
}

} // namespace

const FileSystemReader exfatReader {
    .types = types,
    .probe = ExFATParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = ExFATParser::startByBackup,
    .isConfirmed = ExFATParser::isConfirmed,
    .confirmsBackups = true,
    .findVolumes = nullptr,
    .rebuildVolumes = rebuildVolumes,
    .findLostFolders = findLostFolders,
    .addUsedRanges = addUsedRanges,
};
