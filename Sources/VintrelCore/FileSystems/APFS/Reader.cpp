#include "VintrelCore/FileSystems/APFS/Reader.h"

#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/APFS/Rebuild.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <vector>

namespace {

constexpr FileSystemType types[] = { FileSystemType::apfs };

VolumeList load(const LoadRequest& request)
{
    return APFSParser::parse(request.source, request.offset, request.origin, request.progress);
}

/// Reads each container once, by the first of its superblocks that leads to its start.
void findVolumes(LostVolumeSearch& search)
{
    std::vector<std::uint64_t> tried; // starts of containers
    for (const auto superblock : search.finds().nxsb) {
        if (search.isCancelled())
            return;
        const auto start = APFSParser::containerStart(search.source(), superblock);
        const auto isInIt = [&](const std::unique_ptr<Volume>& volume) {
            return APFSParser::isInContainer(*volume, *start);
        };
        if (!start || std::ranges::count(tried, *start) != 0
            || std::ranges::any_of(search.known(), isInIt))
            continue;
        tried.push_back(*start);
        search.reportFound(FileSystemType::apfs, "-container");
        for (auto& volume : APFSParser::parseFromSuperblock(search.source(), superblock,
                 "Dyb scanning, container-superblok ved " + std::to_string(superblock),
                 search.progress()))
            search.keep(std::move(volume));
    }
}

std::vector<ExtraFolder> findLostFolders(DiskSource& source, const VolumeList& volumes,
    const DeepScanResult& finds, WorkProgress* progress)
{
    std::vector<ExtraFolder> folders;
    for (const auto& volume : volumes) {
        if (isCancelled(progress))
            break;
        if (volume->type != FileSystemType::apfs)
            continue;
        report(progress, 0, "Søger efter slettede APFS-filer …");
        if (auto folder = APFSParser::lostFiles(source, *volume, finds.apfsLeafNodes, progress))
            folders.push_back({ volume.get(), std::move(folder) });
    }
    return folders;
}

} // namespace

const FileSystemReader apfsReader {
    .types = types,
    .probe = APFSParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = nullptr,
    .isConfirmed = nullptr,
    .confirmsBackups = false,
    .findVolumes = findVolumes,
    .rebuildVolumes = APFSRebuild::rebuildVolumes,
    .findLostFolders = findLostFolders,
    .findSnapshots = APFSParser::snapshots,
    .addUsedRanges = APFSParser::addUsedRanges,
};
