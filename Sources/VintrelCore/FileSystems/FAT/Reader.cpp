#include "VintrelCore/FileSystems/FAT/Reader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/RowHelpers.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"

namespace {

constexpr FileSystemType types[]
    = { FileSystemType::fat12, FileSystemType::fat16, FileSystemType::fat32 };

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(FATParser::parse(
        request.source, request.offset, request.origin, request.progress, request.boot));
}

void rebuildVolumes(LostVolumeSearch& search)
{
    rebuildFromDirectories<FATDeepInfo>(
        search, search.finds().fatDirSectors, FATParser::looseSectors, FATParser::rebuild);
}

std::vector<ExtraFolder> findLostFolders(DiskSource& /*source*/, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress)
{
    const auto sectors = FATParser::looseSectors(finds.fatDirSectors, volumes);
    return lostFolders(volumes, types, progress, [&](Volume& volume) {
        return FATParser::lostEntries(volume, sectorsOf<FATDeepInfo>(volume, sectors), progress);
    });
}

bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges)
{
    const auto* info = dynamic_cast<const FATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->context->fatUnavailable())
        return false;
    const auto& context = *info->context;
    addUsedClusters(volume, context.geometry().heap, context.used(), source.size(), ranges);
    return true;
}

} // namespace

const FileSystemReader fatReader {
    .types = types,
    .probe = FATParser::probe,
    .load = load,
    .readAgain = FATParser::readAgain,
    .quickScanNote = {},
    .startByBackup = FATParser::startByBackup,
    .isConfirmed = FATParser::isConfirmed,
    .confirmsBackups = true,
    .findVolumes = nullptr,
    .rebuildVolumes = rebuildVolumes,
    .findLostFolders = findLostFolders,
    .addUsedRanges = addUsedRanges,
};
