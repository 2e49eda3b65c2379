#include "VintrelCore/FileSystems/NTFS/MFT.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/AttributeList.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"

#include <algorithm>
#include <unordered_set>

namespace NTFSParser {

namespace {

/// Every MFT begins with the records of the system's own files.
constexpr std::uint64_t minMFTRecords = firstUserRecord;

/// The records of the MFT are read in pieces of this size.
constexpr std::uint64_t batchSize = 4'194'304;

/// Extension records of the MFT can lie in pieces of the MFT that only other extension records know
/// of. Systems keep them where the first pieces are, so that few rounds find all of them.
constexpr int maxExtensionRounds = 16;

/// Extension records of the MFT that no list names any more are looked for among so many records.
constexpr std::uint64_t maxSearchedRecords = 4096;

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

/// Adds the extension records of the MFT that this part of it has and that were not merged yet.
/// False when there are none.
bool mergeUnlisted(const NTFSContext& context, const MappedStream& mft, MFTRecord& record,
    std::unordered_set<std::uint64_t>& merged)
{
    const std::uint64_t recordSize = context.geometry().recordSize;
    const std::uint64_t count = std::min(maxSearchedRecords, mft.size() / recordSize);
    const auto before = merged.size();
    Bytes bytes(recordSize);
    MFTRecord extension;
    for (std::uint64_t number = 1; number < count; ++number) {
        mft.read(context.source(), number * recordSize, bytes);
        if (parseRecord(bytes, number, extension) && extension.isExtension()
            && !extension.data.empty() && record.isTargetOf(extension.base)
            && merged.insert(number).second)
            mergeExtension(record, extension);
    }
    return merged.size() > before;
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
    // The list can be what is lost.
    std::unordered_set<std::uint64_t> unlisted;
    for (int round = 0; mft && round < maxExtensionRounds && !isWhole(context, record)
         && mergeUnlisted(context, *mft, record, unlisted);
         ++round)
        mft = mapFragments(context, record);
    return mft;
}

/// How many records $MFTMirr has.
std::uint64_t countMirrored(const NTFSGeometry& geometry)
{
    return geometry.mirrorSize() / geometry.recordSize;
}

/// A record as $MFTMirr has it. False when it has none that is whole.
bool readMirrored(const NTFSContext& context, std::uint64_t number, MFTRecord& record)
{
    const auto& geometry = context.geometry();
    const auto mirror = geometry.offsetOf(geometry.mirrorLCN);
    if (!mirror || *mirror >= context.source().size())
        return false;
    auto bytes = context.source().read(
        *mirror + number * geometry.recordSize, geometry.recordSize, ReadMode::thorough);
    return parseRecord(bytes, std::nullopt, record) && record.number == number && record.fixupOK;
}

/// Reads the records of an MFT into `records`.
class RecordsReader {
public:
    RecordsReader(const NTFSContext& context, const MappedStream& mft, MFTRecords& records)
        : context_(context)
        , mft_(mft)
        , records_(records)
    {
    }

    /// The records from `number` on that these bytes have room for.
    void readBatch(std::uint64_t number, std::span<std::uint8_t> bytes)
    {
        const std::uint32_t recordSize = context_.geometry().recordSize;
        const bool isDamaged
            = mft_.read(context_.source(), number * recordSize, bytes).badBytes > 0;
        for (; !bytes.empty(); bytes = bytes.subspan(recordSize), ++number) {
            const auto one = bytes.first(recordSize);
            if (isDamaged && number >= firstUserRecord
                && mft_.read(context_.source(), number * recordSize, one).badBytes > 0)
                records_.addUnreadable();
            const bool isRecord = parseRecord(one, number, record_);
            if (number < countMirrored(context_.geometry()) && !(isRecord && record_.fixupOK))
                damaged_.push_back({ number, isRecord ? record_ : MFTRecord() });
            else if (isRecord)
                records_.add(record_);
        }
    }

    /// Takes damaged records from the mirror. Not when it is all that is left: there is no MFT
    /// then.
    void finish()
    {
        const bool hasMFT = records_.count() > 0;
        for (auto& [number, damaged] : damaged_)
            if (hasMFT && readMirrored(context_, number, record_))
                records_.add(record_);
            else
                records_.add(damaged);
    }

private:
    struct Damaged {
        std::uint64_t number;
        MFTRecord record; ///< without a number where there is none
    };

    const NTFSContext& context_;
    const MappedStream& mft_;
    MFTRecords& records_;
    MFTRecord record_; ///< only lent, so that its lists keep their room
    std::vector<Damaged> damaged_;
};

/// The MFT as a record that may be its own, or the copy of that, says.
struct LocatedMFT {
    MappedStream stream;
    bool isWhole = false;
    bool isMirror = false; ///< of the record
    bool fixupOK = false;
};

/// None when no record of an MFT lies in this cluster.
std::optional<LocatedMFT> readMFTAt(const NTFSContext& context, std::uint64_t lcn)
{
    const auto& geometry = context.geometry();
    const auto offset = geometry.offsetOf(lcn);
    if (!offset || *offset >= context.source().size())
        return std::nullopt;
    auto bytes = context.source().read(*offset, geometry.recordSize, ReadMode::thorough);
    MFTRecord record;
    if (!parseRecord(bytes, 0, record))
        return std::nullopt;
    auto mft = mapMFT(context, record);
    if (!mft || mft->size() / geometry.recordSize < minMFTRecords)
        return std::nullopt;
    return LocatedMFT {
        .stream = std::move(*mft), .isWhole = isWhole(context, record), .fixupOK = record.fixupOK
    };
}

} // namespace

std::optional<MappedStream> locateMFT(const NTFSContext& context, std::vector<std::string>& notes)
{
    const auto& geometry = context.geometry();
    std::optional<LocatedMFT> best;
    for (const auto lcn : { geometry.mftLCN, geometry.mirrorLCN }) {
        auto located = readMFTAt(context, lcn);
        if (!located || (best && !located->isWhole))
            continue;
        located->isMirror = lcn != geometry.mftLCN;
        best = std::move(located);
        if (best->isWhole)
            break;
    }
    if (!best) {
        notes.emplace_back(
            "$MFT kunne ikke findes. Kør en dyb scanning for at genopbygge fra løse MFT-poster.");
        return std::nullopt;
    }
    if (best->isMirror)
        notes.emplace_back("$MFT-posten var beskadiget – $MFTMirr blev brugt.");
    if (!best->fixupOK)
        notes.emplace_back("$MFT-posten har fejl i opdateringssekvensen.");
    if (!best->isWhole)
        notes.emplace_back("Dele af $MFT kunne ikke findes. Filer kan mangle.");
    return std::move(best->stream);
}

MFTRecords readAllRecords(
    const NTFSContext& context, const MappedStream& mft, WorkProgress* progress)
{
    const std::uint64_t recordSize = context.geometry().recordSize;
    const std::uint64_t total = mft.size() / recordSize;
    const std::uint64_t batch = std::max<std::uint64_t>(1, batchSize / recordSize);
    MFTRecords records(context);
    RecordsReader reader(context, mft, records);
    Bytes buffer(static_cast<std::size_t>(std::min(batch, total) * recordSize));
    for (std::uint64_t number = 0; number < total && !isCancelled(progress);) {
        const auto piece = mft.at(number * recordSize);
        std::uint64_t count = std::min(piece.length / recordSize, total - number);
        if (piece.offset || count == 0) {
            // Clusters can be smaller than records: one that begins in this piece and ends in
            // another is read across.
            count = std::clamp<std::uint64_t>(count, 1, batch);
            const auto size = static_cast<std::size_t>(count * recordSize);
            reader.readBatch(number, std::span(buffer).first(size));
        }
        number += count;
        report(progress, static_cast<double>(number) / static_cast<double>(total),
            "Læser MFT … " + std::to_string(number) + " af " + std::to_string(total) + " poster");
    }
    reader.finish();
    return records;
}

} // namespace NTFSParser
