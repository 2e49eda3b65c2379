#include "VintrelCore/FileSystems/NTFS/Rebuild.h"

#include "VintrelCore/FileSystems/NTFS/Rebuild/JoinVolume.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/ListedGroups.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/NumberGroups.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/PlaceSearch.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/SelfDescribedMFT.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Model/Chance.h"

#include <algorithm>

namespace NTFSParser {

namespace {

using namespace NTFSRebuild;

/// Lowers the chances of all files whose content lies where the volume's place has it.
void doubtPlace(Volume& volume, const Placement& place)
{
    volume.notes.push_back("Filsystemets placering er usikker: kun " + std::to_string(place.support)
        + " af " + std::to_string(place.witnesses)
        + " undersøgte filer og mapper ligger, hvor de skal.");
    volume.root->forEachDescendant([](FileNode& node, std::size_t) {
        if (std::holds_alternative<ExtentList>(node.data)
            || contentAs<CompressedRuns>(node.data) != nullptr)
            judgeFurther(node, Doubt::uncertainPlace);
    });
}

/// None when cancelled before the place of the volume was known, and when nothing is listed.
std::unique_ptr<Volume> buildGroup(RecordReader& reader, PlaceSearch& search, RecordGroup group,
    ListedGroups& listed, const RebuildHints& hints, const WorkProgress* progress)
{
    const auto evidence = search.gather(reader, group, progress);
    if (!evidence)
        return nullptr;
    const auto place = search.bestPlace(*evidence, group.front().size);
    const NTFSContext context(reader.source(), place.geometry);
    listed.dropRepeated(reader, group, place.geometry.hasPlace);
    MFTRecords records(context);
    MFTRecord record;
    for (const auto& loose : group)
        if (!isCancelled(progress) && reader.read(loose, record))
            records.add(record);
    auto volume = buildFromRecords(context, std::move(records), group.size(), {}, hints);
    if (volume)
        listed.add(group, place.geometry.hasPlace);
    if (volume && place.geometry.hasPlace && !place.isCertain())
        doubtPlace(*volume, place);
    return volume;
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
    auto volumes = buildSelfDescribed(reader, loose, hints, progress);
    for (const auto& listed : hints.volumes)
        joinVolume(reader, listed, loose, progress);
    ListedGroups listed;
    PlaceSearch search(source, hints);
    for (auto& group : groupByNumber(loose))
        if (auto volume = buildGroup(reader, search, std::move(group), listed, hints, progress))
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
