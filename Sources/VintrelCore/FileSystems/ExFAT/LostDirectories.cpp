#include "VintrelCore/FileSystems/ExFAT/LostDirectories.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/ExFAT/Entries.h"

using namespace ExFATEntries;

ExFATLostDirectories::ExFATLostDirectories(ExFATContext& context, WorkProgress* progress)
    : LostDirectories(context.source(), context.geometry().heap, walker_, progress)
    , walker_(context, progress)
{
}

void ExFATLostDirectories::survey(Fragment& fragment, std::uint64_t sector, bool isFirst)
{
    const auto cluster = fragment.cluster;
    const auto bytes = source_.read(sector, soundSetsSize, ReadMode::thorough);
    if (sector == heap_.offsetOf(cluster) && (bytes[0] & secondary) != 0) {
        fragment.isContinuation = true;
        walker_.cutSets.addRest(cluster, bytes);
    }
    if (isFirst)
        walker_.cutSets.addHead(cluster, walker_.tailOf(cluster));
    bool hasDeleted = !isFirst;
    for (const auto& set : soundSets(bytes, 0)) {
        const std::uint32_t content = set.stream.firstCluster;
        if (set.file->isDirectory() && heap_.contains(content)) {
            fragment.namesFolder = true;
            named_.insert(content);
        }
        if (set.isDeleted && content != 0 && !hasDeleted) {
            walker_.deletedContinuations.byFirstContent.emplace(content, cluster);
            hasDeleted = true;
        }
        if (isFirst && !set.isDeleted && content != 0) {
            walker_.continuations.byFirstContent.emplace(content, cluster);
            isFirst = false;
        }
    }
}
