#include "VintrelCore/FileSystems/FAT/Reader.h"

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

void addLostFiles(DiskSource& /*source*/, const VolumeList& volumes, const DeepScanResult& finds,
    WorkProgress* progress)
{
    const auto sectors = FATParser::looseSectors(finds.fatDirSectors, volumes);
    addLostFolders(volumes, types, progress,
        [&](Volume& volume) { return FATParser::lostEntries(volume, sectors, progress); });
}

} // namespace

const FileSystemReader fatReader {
    .types = types,
    .probe = FATParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = FATParser::startByBackup,
    .isConfirmed = FATParser::isConfirmed,
    .confirmsBackups = true,
    .findVolumes = nullptr,
    .rebuildVolumes = rebuildVolumes,
    .addLostFiles = addLostFiles,
};
