#include "VintrelCore/FileSystems/FAT/LostDirectories.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/Foundation/Binary.h"

using namespace FATEntries;

FATLostDirectories::FATLostDirectories(FATContext& context, WorkProgress* progress)
    : LostDirectories(context.source(), context.geometry().heap, walker_, progress)
    , geometry_(context.geometry())
    , walker_(context, progress)
{
}

void FATLostDirectories::walkRoot(LostRoot& root)
{
    if (root.offset < heap_.offset)
        walker_.walkLostRoot(root.offset, heap_.offset - root.offset, root.folder);
    else
        LostDirectories::walkRoot(root);
}

void FATLostDirectories::survey(Fragment& fragment, std::uint64_t sector, bool isFirst)
{
    const auto bytes = source_.read(sector, directorySectorSize, ReadMode::thorough);
    const bool isFirstSector = sector == heap_.offsetOf(fragment.cluster);
    if (isFirst && fragments_.size() > 1) { // what follows a fragment directly may be more of it
        const auto& previous = fragments_[fragments_.size() - 2];
        fragment.isContinuation = !previous.isForeign && previous.cluster + 1 == fragment.cluster;
    }
    if (const auto own = ownCluster(bytes)) {
        fragment.isBeginning = isFirstSector && geometry_.clusterNumber(*own) == fragment.cluster;
        fragment.isForeign = fragment.isForeign || !fragment.isBeginning;
    } else if (isFirstSector) {
        noteContinuation(fragment, bytes);
    }
    forEachEntry(bytes, [&](const ShortEntry& entry) {
        const auto cluster = geometry_.clusterNumber(firstCluster(entry));
        if (!isSubfolder(entry) || !heap_.contains(cluster))
            return;
        named_.insert(cluster);
        if (!fragment.isBeginning && !fragment.namesFolder)
            fragment.namesFolder = isDirectoryAt(cluster);
    });
}

bool FATLostDirectories::isDirectoryAt(std::uint32_t cluster)
{
    const auto own
        = ownCluster(source_.read(heap_.offsetOf(cluster), 2 * entrySize, ReadMode::thorough));
    return own && geometry_.clusterNumber(*own) == cluster;
}

/// Keeps by what the directory is known to which a cluster's first entries belong.
void FATLostDirectories::noteContinuation(Fragment& fragment, ByteView sector)
{
    const auto cluster = fragment.cluster;
    const auto entry = *sector.load<ShortEntry>(0);
    const auto piece = *sector.load<LongNamePiece>(0);
    if (entry.attributes != longNameAttributes) {
        walker_.nameRests.insert({ 0, checksum(entry.name), cluster });
    } else if (!piece.isLast() && !piece.isDeleted()) {
        walker_.nameRests.insert({ piece.sequence(), piece.checksum, cluster });
        fragment.isContinuation = true;
    }
    bool hasDeleted = false;
    for (std::int64_t at = 0; const auto next = sector.load<ShortEntry>(at); at += entrySize) {
        const auto content = geometry_.clusterNumber(firstCluster(*next));
        const bool isNamed = next->attributes != longNameAttributes && content != 0;
        if (isNamed && next->name[0] == deletedMark && !hasDeleted) {
            walker_.deletedContinuations.byFirstContent.emplace(content, cluster);
            hasDeleted = true;
        }
        if (next->attributes == longNameAttributes || next->name[0] == deletedMark || content == 0)
            continue;
        walker_.continuations.byFirstContent.emplace(content, cluster);
        return;
    }
}
