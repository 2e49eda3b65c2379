#include "VintrelCore/FileSystems/ExFAT/Reader.h"

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

void addLostFiles(DiskSource& /*source*/, const VolumeList& volumes, const DeepScanResult& finds,
    WorkProgress* progress)
{
    const auto sectors = ExFATParser::looseSectors(finds.exfatDirSectors, volumes);
    addLostFolders(volumes, types, progress,
        [&](Volume& volume) { return ExFATParser::lostEntries(volume, sectors, progress); });
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
    .addLostFiles = addLostFiles,
};
