// ExFATParser: the face of the exFAT reader.

#include "VintrelCore/FileSystems/ExFAT/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/FormerFiles.h"
#include "VintrelCore/FileSystems/Clusters/RowHelpers.h"
#include "VintrelCore/FileSystems/ExFAT/BootSector.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"
#include "VintrelCore/FileSystems/ExFAT/LostDirectories.h"
#include "VintrelCore/FileSystems/ExFAT/Walker.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

namespace ExFATParser {

std::optional<FileSystemType> probe(ByteView head)
{
    return ExFATBootSector::from(head) ? std::optional(FileSystemType::exfat) : std::nullopt;
}

std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset)
{
    const auto boot = ExFATBootSector::from(sector);
    if (!boot)
        return std::nullopt;
    const std::uint64_t distance = ExFATBootSector::backupSector << boot->bytesPerSectorShift;
    return distance <= offset ? std::optional(offset - distance) : std::nullopt;
}

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto sector = boot
        ? ExFATBootSector::from(*boot)
        : ExFATBootSector::from(source.read(offset, sizeof(ExFATBootSector), ReadMode::thorough));
    const auto geometry = sector ? ExFATGeometry::from(*sector, offset) : std::nullopt;
    if (!geometry)
        return nullptr;

    auto context = std::make_unique<ExFATContext>(source, *geometry);
    auto volume = std::make_unique<Volume>(FileSystemType::exfat, "", offset, geometry->volumeSize,
        FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = geometry->heap.clusterSize;
    ExFATWalker walker(*context, progress);
    walker.walkRoot(*volume->root);
    judgeFormerFiles(walker.claims, geometry->heap, false);
    volume->label = walker.label().value_or("");
    if (context->fatUnavailable())
        volume->notes.emplace_back(
            "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende.");
    if (context->bitmapUnavailable())
        volume->notes.emplace_back("Allokeringsbitmappen kunne ikke læses.");
    noteUnreadable(*volume, context->unreadableSectors(),
        unitsFor(walker.unreadableBytes(), source.sectorSize()));
    if (const auto count = walker.directoriesWithGaps(); count > 0)
        volume->notes.push_back((count == 1 ? "En mappe" : std::to_string(count) + " mapper")
            + " mangler sektorer midt i – filer kan mangle.");
    volume->deepContext
        = std::make_unique<ExFATDeepInfo>(std::move(context), std::move(walker.claims));
    volume->root->sortChildren();
    return volume;
}

bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView boot)
{
    using namespace ExFATEntries;
    constexpr std::int64_t searched = 512; // formatting puts the bitmap among the first entries
    const auto sector = ExFATBootSector::from(boot);
    const auto geometry = sector ? ExFATGeometry::from(*sector, offset) : std::nullopt;
    if (!geometry || !geometry->heap.contains(geometry->rootCluster))
        return false;
    const auto root
        = source.read(geometry->heap.offsetOf(geometry->rootCluster), searched, ReadMode::thorough);
    for (std::int64_t at = 0; at < searched; at += entrySize) {
        const auto entry = ByteView(root).load<BitmapEntry>(at);
        if (entry->type == bitmapType && geometry->heap.contains(entry->firstCluster)
            && entry->size == (std::uint64_t { geometry->heap.count } + 7) / 8)
            return true;
    }
    return false;
}

bool looksLikeDirectorySector(ByteView bytes, std::int64_t at)
{
    return !ExFATEntries::soundSets(bytes, at).empty();
}

std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress)
{
    auto* info = dynamic_cast<ExFATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->isRebuilt)
        return nullptr;
    auto folder = ExFATLostDirectories(*info->context, progress)
                      .find({ sectors.begin(), sectors.end() }, info->claims, nullptr);
    judgeFormerFiles(info->claims, info->context->geometry().heap, false);
    return folder;
}

std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes)
{
    return sectorsOutside<ExFATDeepInfo>(sectors, volumes,
        [](const ExFATDeepInfo& /*info*/, std::uint64_t /*offset*/) { return false; });
}

} // namespace ExFATParser
