#include "VintrelCore/FileSystems/NTFS/Rebuild.h"

#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/NumberGroups.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/PlaceSearch.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/SelfDescribedMFT.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <algorithm>

namespace NTFSParser {

namespace {

using namespace NTFSRebuild;

/// None when cancelled before the place of the volume was known, and when nothing is listed.
std::unique_ptr<Volume> buildGroup(RecordReader& reader, PlaceSearch& search,
    const RecordGroup& group, const WorkProgress* progress)
{
    const auto evidence = search.gather(reader, group, progress);
    if (!evidence)
        return nullptr;
    const NTFSContext context(reader.source(), search.bestGeometry(*evidence, group.front().size));
    MFTRecords records(context);
    MFTRecord record;
    for (const auto& loose : group)
        if (!isCancelled(progress) && reader.read(loose, record))
            records.add(record);
    return buildFromRecords(context, std::move(records), group.size(), {});
}

/// Where the MFTs of these volumes and their mirrors lie, ascending by start. They may overlap.
std::vector<ByteRange> placesOfMFTs(const VolumeList& volumes)
{
    std::vector<ByteRange> places;
    for (const auto& volume : volumes) {
        const auto* info = dynamic_cast<const NTFSDeepInfo*>(volume->deepContext.get());
        if (info == nullptr)
            continue;
        for (const auto& extent : info->mft.extents())
            if (extent.offset)
                places.push_back({ *extent.offset, *extent.offset + extent.length });
        const auto& geometry = info->geometry;
        if (const auto mirror = geometry.offsetOf(geometry.mirrorLCN))
            places.push_back({ *mirror, *mirror + geometry.mirrorSize() });
    }
    std::ranges::sort(places, {}, &ByteRange::start);
    return places;
}

} // namespace

VolumeList rebuild(DiskSource& source, std::span<const std::uint64_t> records,
    const RebuildHints& hints, WorkProgress* progress)
{
    RecordReader reader(source);
    auto loose = survey(reader, records, hints.volumes, progress);
    auto volumes = buildSelfDescribed(reader, loose, progress);
    PlaceSearch search(source, hints);
    for (const auto& group : groupByNumber(loose))
        if (auto volume = buildGroup(reader, search, group, progress))
            volumes.push_back(std::move(volume));
    return volumes;
}

std::vector<std::uint64_t> looseRecords(
    std::span<const std::uint64_t> records, const VolumeList& volumes)
{
    const auto taken = placesOfMFTs(volumes);
    std::vector<std::uint64_t> loose;
    std::uint64_t takenTo = 0;
    auto range = taken.begin();
    for (const auto offset : records) {
        for (; range != taken.end() && range->start <= offset; ++range)
            takenTo = std::max(takenTo, range->end);
        if (offset >= takenTo)
            loose.push_back(offset);
    }
    return loose;
}

} // namespace NTFSParser
