#include "VintrelCore/FileSystems/NTFS/MFT.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/AttributeList.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"

#include <algorithm>

namespace NTFSParser {

namespace {

/// Every MFT begins with the records of the system's own files.
constexpr std::uint64_t minMFTRecords = firstUserRecord;

/// The records of the MFT are read in pieces of this size.
constexpr std::uint64_t batchSize = 4'194'304;

/// Extension records of the MFT can lie in pieces of the MFT that only other extension records know
/// of. Systems keep them where the first pieces are, so that few rounds find all of them.
constexpr int maxExtensionRounds = 16;

/// Clusters of a sound MFT belong to it once. One whose pieces together are larger than the source
/// is made up, and ends where it becomes that; so does one that goes on past the end of the source.
ExtentList withinSource(const ExtentList& extents, std::uint64_t sourceSize)
{
    ExtentList kept;
    std::size_t count = 0; // of those kept, up to the last one that has a place
    std::uint64_t onSource = 0;
    for (const auto& [offset, length] : extents) {
        if (!offset) {
            kept.push_back({ offset, length });
            continue;
        }
        const std::uint64_t available = std::min(length, sourceSize - *offset);
        if (available > sourceSize - onSource)
            break;
        onSource += available;
        kept.push_back({ offset, available });
        count = kept.size();
        if (available < length)
            kept.push_back({ std::nullopt, length - available });
    }
    kept.resize(count);
    return kept;
}

/// The MFT as far as the fragments in this record tell. None when they do not lie in clusters.
std::optional<MappedStream> mapFragments(const NTFSContext& context, MFTRecord& record)
{
    const auto merged = NTFSContent::merge(context, record.data);
    if (!merged)
        return std::nullopt;
    const auto located = context.extents(merged->runs, merged->size, merged->initSize);
    return MappedStream(withinSource(located.extents, context.source().size()));
}

/// Whether all of the MFT that the fragments in this record speak of has a place on the source.
bool isWhole(const NTFSContext& context, MFTRecord& record)
{
    const auto merged = NTFSContent::merge(context, record.data);
    return merged && !merged->hasGaps
        && context.extents(merged->runs, merged->size, merged->initSize).isComplete;
}

/// The extension record of `base` that `reference` names; none where this part of the MFT does not
/// have it.
std::optional<MFTRecord> readExtension(const NTFSContext& context, const MappedStream& mft,
    FileReference reference, const MFTRecord& base)
{
    const std::uint64_t recordSize = context.geometry().recordSize;
    Bytes bytes(recordSize);
    MFTRecord extension;
    const bool isFound = reference.number < mft.size() / recordSize
        && mft.read(context.source(), reference.number * recordSize, bytes).isOnSource
        && parseRecord(bytes, reference.number, extension)
        && isExtensionOf(extension, reference, base);
    return isFound ? std::optional(std::move(extension)) : std::nullopt;
}

/// The MFT as its own record says, extension records and all. None when the record holds no data
/// that lies in clusters.
std::optional<MappedStream> mapMFT(const NTFSContext& context, MFTRecord& record)
{
    auto mft = mapFragments(context, record);
    if (!mft || !record.hasAttributeList())
        return mft;
    auto missing = extensionsIn(loadAttributeList(context, record), 0);
    for (int round = 0; mft && round < maxExtensionRounds; ++round) {
        std::vector<FileReference> stillMissing;
        for (const auto reference : missing) {
            if (auto extension = readExtension(context, *mft, reference, record))
                mergeExtension(record, *extension);
            else
                stillMissing.push_back(reference);
        }
        if (stillMissing.size() == missing.size())
            break;
        missing = std::move(stillMissing);
        mft = mapFragments(context, record);
    }
    return mft;
}

/// Reads the records from `number` on that these bytes have room for. `record` is only lent, so
/// that its lists keep their room.
void readBatch(const NTFSContext& context, const MappedStream& mft, std::uint64_t number,
    std::span<std::uint8_t> bytes, MFTRecord& record, MFTRecords& records)
{
    const std::uint32_t recordSize = context.geometry().recordSize;
    const bool isDamaged = mft.read(context.source(), number * recordSize, bytes).badBytes > 0;
    for (; !bytes.empty(); bytes = bytes.subspan(recordSize), ++number) {
        const auto one = bytes.first(recordSize);
        if (isDamaged && number >= firstUserRecord
            && mft.read(context.source(), number * recordSize, one).badBytes > 0)
            records.addUnreadable();
        if (parseRecord(one, number, record))
            records.add(record);
    }
}

} // namespace

std::optional<MappedStream> locateMFT(const NTFSContext& context, std::vector<std::string>& notes)
{
    const auto& geometry = context.geometry();
    for (const auto lcn : { geometry.mftLCN, geometry.mirrorLCN }) {
        const bool isMirror = lcn != geometry.mftLCN;
        const auto offset = geometry.offsetOf(lcn);
        if (!offset || *offset >= context.source().size())
            continue;
        auto bytes = context.source().read(*offset, geometry.recordSize, ReadMode::thorough);
        MFTRecord record;
        if (!parseRecord(bytes, 0, record))
            continue;
        auto mft = mapMFT(context, record);
        if (!mft || mft->size() / geometry.recordSize < minMFTRecords)
            continue;
        if (isMirror)
            notes.emplace_back("$MFT-posten var beskadiget – $MFTMirr blev brugt.");
        if (!record.fixupOK)
            notes.emplace_back("$MFT-posten har fejl i opdateringssekvensen.");
        if (!isWhole(context, record))
            notes.emplace_back("Dele af $MFT kunne ikke findes. Filer kan mangle.");
        return mft;
    }
    notes.emplace_back(
        "$MFT kunne ikke findes. Kør en dyb scanning for at genopbygge fra løse MFT-poster.");
    return std::nullopt;
}

MFTRecords readAllRecords(
    const NTFSContext& context, const MappedStream& mft, WorkProgress* progress)
{
    const std::uint64_t recordSize = context.geometry().recordSize;
    const std::uint64_t total = mft.size() / recordSize;
    const std::uint64_t batch = std::max<std::uint64_t>(1, batchSize / recordSize);
    MFTRecords records(context);
    MFTRecord record;
    Bytes buffer(static_cast<std::size_t>(std::min(batch, total) * recordSize));
    for (std::uint64_t number = 0; number < total && !isCancelled(progress);) {
        const auto piece = mft.at(number * recordSize);
        std::uint64_t count = std::min(piece.length / recordSize, total - number);
        if (piece.offset || count == 0) {
            // Clusters can be smaller than records: one that begins in this piece and ends in
            // another is read across.
            count = std::clamp<std::uint64_t>(count, 1, batch);
            const auto size = static_cast<std::size_t>(count * recordSize);
            readBatch(context, mft, number, std::span(buffer).first(size), record, records);
        }
        number += count;
        report(progress, static_cast<double>(number) / static_cast<double>(total),
            "Læser MFT … " + std::to_string(number) + " af " + std::to_string(total) + " poster");
    }
    return records;
}

} // namespace NTFSParser
