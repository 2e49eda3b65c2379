// What the structures that a sweep found say of volumes that no table names.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/FileSystems/VolumeLoader.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"
#include "VintrelCore/Model/WorkProgress.h"
#include "VintrelCore/Scanning/DeepScan.h"

#include <algorithm>
#include <iterator>

namespace {

/// A boot sector that was found, with the row of the table that knows its kind.
struct KnownBoot {
    const FoundBoot& found;
    const FileSystemReader& reader;

    std::optional<std::uint64_t> startByBackup() const
    {
        return reader.startByBackup(found.sector, found.offset);
    }
    bool isConfirmed(DiskSource& source, std::uint64_t start) const
    {
        return reader.isConfirmed(source, start, found.sector);
    }
};

/// Asked first, because a backup a few sectors into its volume can pass for a primary one: what
/// follows the true root by as many sectors may be more of the root.
bool isBackup(const LostVolumeSearch& search, const KnownBoot& boot)
{
    const auto start = boot.startByBackup();
    return start
        && (search.hasVolume(boot.found.type, *start)
            || (boot.reader.confirmsBackups && boot.isConfirmed(search.source(), *start)));
}

void tryBoot(
    LostVolumeSearch& search, const KnownBoot& boot, std::uint64_t start, const std::string& origin)
{
    const auto type = boot.found.type;
    if (search.hasVolume(type, start) || !search.hasRoom()
        || !boot.isConfirmed(search.source(), start))
        return;
    search.reportFound(type, "-filsystem");
    auto volumes = boot.reader.load({ search.source(), start, origin, search.progress(),
        ByteView(boot.found.sector), 0, search.volumes() });
    VolumeLoader::readAgain(search.source(), volumes, search.progress());
    for (auto& volume : volumes)
        search.keep(std::move(volume));
}

/// First those that lie at their own place: a copy is asked only where there is no such one.
void findByBootSectors(LostVolumeSearch& search)
{
    const auto forEachBoot = [&](auto visit) {
        for (const auto& found : search.finds().boots)
            if (const auto* reader = readerFor(found.type); reader && !search.isCancelled())
                visit(KnownBoot { found, *reader });
    };
    forEachBoot([&](const KnownBoot& boot) {
        if (!isBackup(search, boot))
            tryBoot(search, boot, boot.found.offset,
                "Dyb scanning, boot-sektor ved " + std::to_string(boot.found.offset));
    });
    forEachBoot([&](const KnownBoot& boot) {
        if (const auto start = boot.startByBackup())
            tryBoot(search, boot, *start, "Dyb scanning, sikkerhedskopi af boot-sektor");
    });
}

} // namespace

VolumeList DeepScanner::buildVolumes(DiskSource& source, const DeepScanResult& result,
    const VolumeList& known, WorkProgress* progress, std::span<const std::uint64_t> partitionStarts)
{
    LostVolumeSearch search(source, source.size(), result, known, partitionStarts, progress);
    findByBootSectors(search);
    for (const auto* reader : fileSystems())
        if (reader->findVolumes != nullptr)
            reader->findVolumes(search);
    // Last, when all that says where it lies has been read: what is loose then belongs to none.
    for (const auto* reader : fileSystems())
        if (reader->rebuildVolumes != nullptr)
            reader->rebuildVolumes(search);
    return search.takeFound();
}

std::vector<ExtraFolder> DeepScanner::extraFolders(DiskSource& source, const VolumeList& volumes,
    const DeepScanResult& result, WorkProgress* progress)
{
    std::vector<ExtraFolder> folders;
    for (const auto* reader : fileSystems())
        if (reader->findLostFolders != nullptr && !isCancelled(progress))
            std::ranges::move(reader->findLostFolders(source, volumes, result, progress),
                std::back_inserter(folders));
    return folders;
}

VolumeList DeepScanner::snapshots(
    DiskSource& source, std::span<const std::unique_ptr<Volume>> volumes, WorkProgress* progress)
{
    VolumeList snapshots;
    for (const auto& volume : volumes) {
        const auto* const reader = readerFor(volume->type);
        if (reader != nullptr && reader->findSnapshots != nullptr && !isCancelled(progress))
            std::ranges::move(
                reader->findSnapshots(source, *volume, progress), std::back_inserter(snapshots));
    }
    return snapshots;
}
