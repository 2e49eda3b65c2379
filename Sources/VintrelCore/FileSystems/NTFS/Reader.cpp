#include "VintrelCore/FileSystems/NTFS/Reader.h"

#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/FileSystems/NTFS/Shadow/Snapshots.h"
#include "VintrelCore/Model/DeepScanResult.h"
#include "VintrelCore/Model/LostVolumeSearch.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

namespace {

constexpr FileSystemType types[] = { FileSystemType::ntfs };

/// Places that a volume without a boot sector is tried at because something else lies there.
constexpr std::size_t maxHints = 64;

VolumeList load(const LoadRequest& request)
{
    return oneOrNone(NTFSParser::parse(request.source, request.offset, request.origin,
        request.progress, request.boot, request.partitionSize, request.volumes));
}

/// The parser wants to see an MFT, which confirms more than any look at a few bytes.
bool isConfirmed(DiskSource& /*source*/, std::uint64_t /*start*/, ByteView /*sector*/)
{
    return true;
}

const NTFSDeepInfo* infoOf(const Volume& volume)
{
    return dynamic_cast<const NTFSDeepInfo*>(volume.deepContext.get());
}

/// As the volume's $Bitmap says, which is asked again.
bool addUsedRanges(DiskSource& source, const Volume& volume, std::vector<ByteRange>& ranges)
{
    const auto* const info = infoOf(volume);
    if (info == nullptr)
        return false;
    const NTFSContext context(source, info->geometry);
    return AllocationMap::load(context, info->bitmap).addUsedRanges(context, ranges);
}

void addGeometry(NTFSParser::RebuildHints& hints, const std::optional<NTFSGeometry>& geometry)
{
    const auto isSame = [&](const NTFSGeometry& other) {
        return other.base == geometry->base && other.clusterSize == geometry->clusterSize;
    };
    if (geometry && hints.geometries.size() < maxHints
        && std::ranges::none_of(hints.geometries, isSame))
        hints.geometries.push_back(*geometry);
}

NTFSParser::RebuildHints hintsFor(const LostVolumeSearch& search)
{
    NTFSParser::RebuildHints hints {
        .geometries = {}, .volumes = {}, .starts = {}, .carved = search.finds().carved
    };
    hints.starts = search.likelyStarts();
    hints.starts.resize(std::min(hints.starts.size(), maxHints));
    for (const auto* volumes : { &search.known(), &search.found() })
        for (const auto& volume : *volumes)
            if (const auto* info = infoOf(*volume)) {
                addGeometry(hints, info->geometry);
                hints.volumes.push_back({ volume.get(), info });
            }
    for (const auto& volume : search.known())
        if (const auto* info = infoOf(*volume))
            hints.used.push_back({ info->geometry,
                AllocationMap::load({ search.source(), info->geometry }, info->bitmap) });
    for (const auto offset : search.finds().ntfsIndexBlocks)
        if (std::ranges::none_of(hints.used, [&](const NTFSParser::KnownUse& use) {
                return use.map.useOf(ExtentList { { offset, 1 } }, use.geometry).foreign > 0;
            }))
            hints.indexBlocks.push_back(offset);
    for (const auto& boot : search.finds().boots) {
        if (boot.type != FileSystemType::ntfs)
            continue;
        addGeometry(hints, NTFSGeometry::from(boot.sector, boot.offset));
        if (const auto start = NTFSParser::startByBackup(boot.sector, boot.offset))
            addGeometry(hints, NTFSGeometry::from(boot.sector, *start));
    }
    return hints;
}

void rebuildVolumes(LostVolumeSearch& search)
{
    auto loose = NTFSParser::looseRecords(search.finds().mftRecords, search.known());
    loose = NTFSParser::looseRecords(loose, search.found());
    if (loose.empty() || search.isCancelled())
        return;
    report(search.progress(), 0, "Genopbygger NTFS-filsystem ud fra MFT-poster …");
    const auto hints = hintsFor(search);
    for (auto& volume : NTFSParser::rebuild(search.source(), loose, hints, search.progress()))
        search.keep(std::move(volume));
}

} // namespace

const FileSystemReader ntfsReader {
    .types = types,
    .probe = NTFSParser::probe,
    .load = load,
    .quickScanNote = {},
    .startByBackup = NTFSParser::startByBackup,
    .isConfirmed = isConfirmed,
    .confirmsBackups = false,
    .findVolumes = nullptr,
    .rebuildVolumes = rebuildVolumes,
    .findLostFolders = nullptr,
    .findSnapshots = NTFSShadow::snapshots,
    .addUsedRanges = addUsedRanges,
};
