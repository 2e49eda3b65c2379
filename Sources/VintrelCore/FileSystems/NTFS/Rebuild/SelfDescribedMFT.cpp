#include "VintrelCore/FileSystems/NTFS/Rebuild/SelfDescribedMFT.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/MFT.h"

#include <algorithm>
#include <set>

namespace NTFSRebuild {

namespace {

constexpr std::size_t minMatches = 2;      // records that lie where their MFT's record 0 has them
constexpr std::size_t maxZeroRecords = 64; // copies of record 0 that are read
constexpr std::size_t maxGeometries = 64;  // that they suggest

/// An MFT that the record 0 at some place describes.
struct LocatedMFT {
    NTFSGeometry geometry;
    MappedStream stream;
    std::size_t matches; ///< loose records that lie where it has them
};

/// The records with the number 0 that have clusters. Blank records may carry that number too.
std::vector<LooseRecord> findZeroRecords(
    RecordReader& reader, const std::vector<LooseRecord>& loose)
{
    std::vector<LooseRecord> found;
    MFTRecord record;
    for (const auto& zero : loose)
        if (zero.number == 0 && found.size() < maxZeroRecords && reader.read(zero, record)
            && firstLCN(record))
            found.push_back(zero);
    return found;
}

/// What a record 0, and the record 1 behind it, say of where the MFT and its mirror lie.
struct Description {
    std::uint64_t mftLCN = 0;
    std::optional<std::uint64_t> mirrorLCN; ///< none where record 1 is lost
    std::optional<std::uint64_t> clusterSize;

    bool hasOwnMirror() const { return mirrorLCN && *mirrorLCN != mftLCN; }
};

std::optional<Description> readDescription(RecordReader& reader, const LooseRecord& zero)
{
    MFTRecord record;
    if (!reader.read(zero, record))
        return std::nullopt;
    const auto mftLCN = firstLCN(record);
    if (!mftLCN)
        return std::nullopt;
    Description description { .mftLCN = *mftLCN, .mirrorLCN = {}, .clusterSize = {} };
    // With an attribute list the record has the first runs only, and a size that is that of all of
    // them.
    if (!record.hasAttributeList())
        description.clusterSize = clusterSizeOf(record);
    if (reader.read({ zero.offset + zero.size, 1, zero.size }, record))
        description.mirrorLCN = firstLCN(record);
    if (!description.clusterSize && description.mirrorLCN)
        description.clusterSize = clusterSizeOf(record);
    return description;
}

/// The cluster size with which two places on the source are as many clusters apart as the MFT and
/// its mirror; none when there is no such size.
std::optional<std::uint64_t> clusterSizeByDistance(
    const Description& description, std::uint64_t place, std::uint64_t other)
{
    const std::uint64_t clusters = std::max(*description.mirrorLCN, description.mftLCN)
        - std::min(*description.mirrorLCN, description.mftLCN);
    const std::uint64_t bytes = std::max(place, other) - std::min(place, other);
    return bytes % clusters == 0 && isClusterSize(bytes / clusters)
        ? std::optional(bytes / clusters)
        : std::nullopt;
}

/// The geometries under which the record 0 at this place describes the MFT that it belongs to, or
/// the one that it is a copy of.
std::vector<NTFSGeometry> geometriesAround(
    RecordReader& reader, const LooseRecord& zero, const std::vector<LooseRecord>& zeroRecords)
{
    std::vector<NTFSGeometry> geometries;
    const auto description = readDescription(reader, zero);
    if (!description)
        return geometries;
    const auto addIfPossible = [&](std::uint64_t lcn, std::uint64_t clusterSize) {
        if (lcn > zero.offset / clusterSize)
            return;
        const std::uint64_t base = zero.offset - lcn * clusterSize;
        geometries.push_back({ .base = base,
            .clusterSize = clusterSize,
            .recordSize = zero.size,
            .volumeSize = reader.source().size() - base,
            .mftLCN = description->mftLCN,
            .mirrorLCN = description->mirrorLCN.value_or(description->mftLCN) });
    };
    if (description->clusterSize)
        addIfPossible(description->mftLCN, *description->clusterSize);
    if (!description->hasOwnMirror())
        return geometries;
    if (description->clusterSize)
        addIfPossible(*description->mirrorLCN, *description->clusterSize); // this may be the copy
    const bool isMirrorBehind = *description->mirrorLCN > description->mftLCN;
    for (const auto& other : zeroRecords) {
        const auto size = clusterSizeByDistance(*description, zero.offset, other.offset);
        if (size && size != description->clusterSize)
            addIfPossible((other.offset > zero.offset) == isMirrorBehind ? description->mftLCN
                                                                         : *description->mirrorLCN,
                *size);
    }
    return geometries;
}

/// The indices of the loose records that lie where this MFT has them.
std::vector<std::size_t> recordsOf(
    const MappedStream& mft, std::uint32_t recordSize, const std::vector<LooseRecord>& loose)
{
    std::vector<std::size_t> matches;
    for (std::size_t i = 0; i < loose.size(); ++i)
        if (loose[i].size == recordSize
            && mft.at(loose[i].number * recordSize).offset == loose[i].offset)
            matches.push_back(i);
    return matches;
}

/// The MFTs that records with the number 0 describe; the one with the most records first.
std::vector<LocatedMFT> locateMFTs(RecordReader& reader, const std::vector<LooseRecord>& loose)
{
    std::vector<LocatedMFT> located;
    std::set<std::pair<std::uint64_t, std::uint64_t>> tried; // base and first cluster of the MFT
    const auto zeroRecords = findZeroRecords(reader, loose);
    for (const auto& zero : zeroRecords)
        for (const auto& geometry : geometriesAround(reader, zero, zeroRecords)) {
            if (tried.size() == maxGeometries
                || !tried.emplace(geometry.base, geometry.mftLCN).second)
                continue;
            std::vector<std::string> notes; // about the MFT's own record, which is not used
            if (auto mft = NTFSParser::locateMFT(NTFSContext(reader.source(), geometry), notes)) {
                const auto matches = recordsOf(*mft, geometry.recordSize, loose).size();
                located.push_back({ geometry, std::move(*mft), matches });
            }
        }
    std::ranges::stable_sort(located, std::ranges::greater {}, &LocatedMFT::matches);
    return located;
}

void eraseMirror(const NTFSGeometry& geometry, std::vector<LooseRecord>& loose)
{
    if (const auto start = geometry.offsetOf(geometry.mirrorLCN))
        std::erase_if(loose, [&](const LooseRecord& record) {
            return record.offset >= *start && record.offset - *start < geometry.mirrorSize();
        });
}

} // namespace

VolumeList buildSelfDescribed(RecordReader& reader, std::vector<LooseRecord>& loose,
    const NTFSParser::RebuildHints& hints, const WorkProgress* progress)
{
    VolumeList volumes;
    for (auto& [geometry, mft, unused] : locateMFTs(reader, loose)) {
        if (isCancelled(progress))
            break;
        const auto matches = recordsOf(mft, geometry.recordSize, loose); // that are still left
        if (matches.size() < minMatches)
            continue;
        // Only the records that match, because another volume may have its own in the place of this
        // MFT by now.
        const NTFSContext context(reader.source(), geometry);
        MFTRecords records(context);
        MFTRecord record;
        for (const auto index : matches) {
            if (reader.readFrom(mft, loose[index], record))
                records.add(record);
            loose[index].size = 0;
        }
        if (auto volume = buildFromRecords(context, std::move(records), matches.size(), mft, hints))
            volumes.push_back(std::move(volume));
        eraseMirror(geometry, loose);
        std::erase_if(loose, [](const LooseRecord& taken) { return taken.size == 0; });
    }
    return volumes;
}

} // namespace NTFSRebuild
