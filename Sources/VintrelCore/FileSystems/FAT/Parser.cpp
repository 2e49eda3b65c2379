// FATParser: the face of the FAT reader.

#include "VintrelCore/FileSystems/FAT/Parser.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Clusters/FormerFiles.h"
#include "VintrelCore/FileSystems/Clusters/RowHelpers.h"
#include "VintrelCore/FileSystems/FAT/BootSector.h"
#include "VintrelCore/FileSystems/FAT/LostDirectories.h"
#include "VintrelCore/FileSystems/FAT/Walker.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/FileTypes.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <string_view>

namespace FATParser {

using namespace FATEntries;

std::optional<FileSystemType> probe(ByteView head) { return FATBootSector::from(head).type(); }

std::optional<std::uint64_t> startByBackup(ByteView sector, std::uint64_t offset)
{
    const auto boot = FATBootSector::from(sector);
    if (boot.type() != FileSystemType::fat32)
        return std::nullopt;
    const std::uint64_t distance
        = std::uint64_t { boot.fat32().backupSector } * boot.bytesPerSector;
    if (distance == 0 || distance > offset)
        return std::nullopt;
    return offset - distance;
}

namespace {

/// Says on a volume what became of sectors of the first FAT that are zeros beside the second one.
void noteZeroedSectors(Volume& volume, std::uint64_t count, FATContext::SecondFAT secondFAT)
{
    if (count == 0)
        return;
    volume.notes.emplace_back(secondFAT == FATContext::SecondFAT::forZeros
            ? "FAT-tabellens to kopier er forskellige – tomme sektorer er hentet fra den anden "
              "kopi."
            : "FAT-tabellens to kopier er forskellige – prøv dyb scanning, som bruger dem begge.");
}

std::unique_ptr<Volume> read(DiskSource& source, const FATGeometry& geometry, std::uint64_t offset,
    const std::string& origin, WorkProgress* progress, FATContext::SecondFAT secondFAT)
{
    auto context = std::make_unique<FATContext>(source, geometry, secondFAT);
    auto volume = std::make_unique<Volume>(geometry.type, geometry.label, offset,
        geometry.volumeSize, FileNode::makeFolder("", EntryStatus::existing), origin);
    volume->clusterSize = geometry.heap.clusterSize;
    FATWalker walker(*context, progress);
    walker.walkRoot(*volume->root);
    judgeFormerFiles(walker.claims, geometry.heap, false);
    if (walker.label() && !walker.label()->empty())
        volume->label = *walker.label();
    if (context->fatUnavailable())
        volume->notes.emplace_back(
            "FAT-tabellen kunne ikke læses – filer antages at ligge sammenhængende.");
    noteZeroedSectors(*volume, context->zeroedSectors(), secondFAT);
    noteUnreadable(*volume, context->unreadableSectors(),
        unitsFor(walker.unreadableBytes(), source.sectorSize()));
    noteBrokenDirectories(*volume, walker.claims.brokenDirectories());
    volume->deepContext
        = std::make_unique<FATDeepInfo>(std::move(context), std::move(walker.claims));
    volume->root->sortChildren();
    return volume;
}

} // namespace

std::unique_ptr<Volume> parse(DiskSource& source, std::uint64_t offset, const std::string& origin,
    WorkProgress* progress, std::optional<ByteView> boot)
{
    const auto sector = boot
        ? FATBootSector::from(*boot)
        : FATBootSector::from(source.read(offset, sizeof(FATBootSector), ReadMode::thorough));
    const auto geometry = FATGeometry::from(sector, offset);
    if (!geometry)
        return nullptr;
    return read(source, *geometry, offset, origin, progress, FATContext::SecondFAT::forUnreadable);
}

std::unique_ptr<Volume> readAgain(DiskSource& source, const Volume& volume, WorkProgress* progress)
{
    const auto* info = dynamic_cast<const FATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->isRebuilt || info->context->zeroedSectors() == 0)
        return nullptr;
    return read(source, info->context->geometry(), volume.offset, volume.origin, progress,
        FATContext::SecondFAT::forZeros);
}

bool isConfirmed(DiskSource& source, std::uint64_t offset, ByteView boot)
{
    const auto sector = FATBootSector::from(boot);
    const auto geometry = FATGeometry::from(sector, offset);
    if (!geometry)
        return false;
    constexpr std::uint64_t maxCopies = 4;
    for (std::uint64_t copy = 0; copy < std::min<std::uint64_t>(geometry->fatCount, maxCopies);
         ++copy) {
        // The first entry repeats the medium's kind, all its other bits being set; the second one's
        // low bits are set.
        const auto start
            = source.read(geometry->fatOffset + copy * geometry->fatSize, 4, ReadMode::thorough);
        const bool isFAT12 = geometry->type == FileSystemType::fat12;
        if (start[0] == sector.media && start[0] >= 0xF0 && start[1] == 0xFF
            && (isFAT12 || start[2] == 0xFF))
            return true;
    }
    std::uint64_t root = geometry->rootDirOffset;
    if (geometry->rootDirSize == 0) {
        if (!geometry->heap.contains(geometry->rootCluster))
            return false;
        root = geometry->heap.offsetOf(geometry->rootCluster);
    }
    return looksLikeDirectorySector(source.read(root, directorySectorSize, ReadMode::thorough));
}

bool looksLikeDirectorySector(ByteView bytes, std::int64_t at)
{
    const auto sector = bytes.sub(at, directorySectorSize);
    int shortEntries = 0;
    for (std::int64_t position = 0; position < directorySectorSize; position += entrySize) {
        const auto entry = sector.load<ShortEntry>(position);
        if (!entry)
            return false;
        if (entry->name[0] == endOfDirectory)
            return position >= 3 * std::int64_t { entrySize } && shortEntries > 0
                && sector.isAllZero(position, directorySectorSize);
        if (entry->attributes == longNameAttributes) {
            const auto piece = *sector.load<LongNamePiece>(position);
            if (piece.type != 0 || piece.firstCluster != 0)
                return false;
        } else if (canBeShortEntry(*entry)) {
            ++shortEntries;
        } else {
            return false;
        }
    }
    return shortEntries > 0;
}

std::unique_ptr<FileNode> lostEntries(
    Volume& volume, std::span<const std::uint64_t> sectors, WorkProgress* progress)
{
    auto* info = dynamic_cast<FATDeepInfo*>(volume.deepContext.get());
    if (info == nullptr || info->isRebuilt)
        return nullptr;
    auto folder = FATLostDirectories(*info->context, progress)
                      .find({ sectors.begin(), sectors.end() }, info->claims, nullptr);
    judgeFormerFiles(info->claims, info->context->geometry().heap, false);
    return folder;
}

std::vector<std::uint64_t> looseSectors(
    std::span<const std::uint64_t> sectors, const VolumeList& volumes)
{
    return sectorsOutside<FATDeepInfo>(
        sectors, volumes, [](const FATDeepInfo& info, std::uint64_t offset) {
            const auto& geometry = info.context->geometry();
            return offset >= geometry.rootDirOffset
                && offset - geometry.rootDirOffset < geometry.rootDirSize;
        });
}

} // namespace FATParser
