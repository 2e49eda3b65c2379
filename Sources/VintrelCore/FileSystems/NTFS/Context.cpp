// The way from the geometry of an NTFS volume to its MFT.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

/// Its own records are the first sixteen of every MFT.
constexpr std::uint64_t minMFTRecords = 16;

/// The records of the MFT are read in pieces of this size.
constexpr std::uint64_t batchSize = 4'194'304;

/// Extension records of the MFT can lie in pieces of the MFT that only other extension records know
/// of. Systems keep them where the first pieces are, so that few rounds find all of them.
constexpr int maxExtensionRounds = 16;

/// Clusters of a sound MFT belong to it once. One whose pieces together are larger than the source
/// is made up, and ends where it becomes that; so does one that goes on past the end of the source.
ExtentList limited(const ExtentList& extents, std::uint64_t sourceSize)
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

} // namespace

MappedStream::MappedStream(ExtentList extents)
    : extents_(std::move(extents))
{
    std::uint64_t end = 0;
    ends_.reserve(extents_.size());
    for (const auto& extent : extents_)
        ends_.push_back(end += extent.length);
}

Extent MappedStream::at(std::uint64_t position) const
{
    const auto end = std::ranges::upper_bound(ends_, position);
    if (end == ends_.end())
        return {};
    const auto& extent = extents_[static_cast<std::size_t>(end - ends_.begin())];
    const std::uint64_t left = *end - position;
    return { extent.offset ? std::optional(*extent.offset + extent.length - left) : std::nullopt,
        left };
}

bool MappedStream::read(
    DiskSource& source, std::uint64_t position, std::span<std::uint8_t> into) const
{
    bool isOnSource = false;
    while (!into.empty()) {
        const auto [offset, length] = at(position);
        const auto piece = into.first(length == 0
                ? into.size()
                : static_cast<std::size_t>(std::min<std::uint64_t>(length, into.size())));
        if (offset)
            source.readReporting(*offset, piece, ReadMode::thorough);
        else
            std::ranges::fill(piece, std::uint8_t { 0 });
        isOnSource = isOnSource || offset;
        position += piece.size();
        into = into.subspan(piece.size());
    }
    return isOnSource;
}

std::uint64_t NTFSContext::capacity() const
{
    const std::uint64_t base = geometry_.hasPlace ? geometry_.base : 0;
    const std::uint64_t onSource = source_.size() > base ? source_.size() - base : 0;
    return geometry_.volumeSize == 0 ? onSource : std::min(onSource, geometry_.volumeSize);
}

NTFSContext::Located NTFSContext::extents(
    std::span<const CompressedRuns::Run> runs, std::uint64_t size, std::uint64_t initSize) const
{
    Located located;
    const auto append = [&](std::optional<std::uint64_t> offset, std::uint64_t length) {
        if (length == 0)
            return;
        auto& extents = located.extents;
        const bool continues = !extents.empty()
            && (offset ? extents.back().offset
                        && *extents.back().offset + extents.back().length == *offset
                       : !extents.back().offset);
        if (continues)
            extents.back().length += length;
        else
            extents.push_back({ offset, length });
    };

    std::uint64_t written = std::min(size, initSize); // bytes that are not known to be zeros
    for (const auto& run : runs) {
        if (size == 0)
            break;
        const std::uint64_t length = run.clusters > size / geometry_.clusterSize
            ? size
            : run.clusters * geometry_.clusterSize;
        auto offset = run.lcn ? geometry_.offsetOf(*run.lcn) : std::nullopt;
        if (run.lcn
            && (!offset || *offset >= source_.size() || length > source_.size() - *offset)) {
            located.isComplete = false;
            if (offset && *offset >= source_.size())
                offset.reset();
        }
        const std::uint64_t withContent = std::min(length, written);
        append(offset, withContent);
        append(std::nullopt, length - withContent);
        written -= withContent;
        size -= length;
    }
    located.isComplete = located.isComplete && size == 0;
    return located;
}

Bytes NTFSContext::attributeListOf(const MFTRecord& record) const
{
    if (record.attributeListRuns.empty())
        return record.attributeList;
    const std::uint64_t size = std::min(record.attributeListSize, maxAttributeList);
    auto located = extents(record.attributeListRuns, size, size);
    Bytes list(static_cast<std::size_t>(size));
    MappedStream(std::move(located.extents)).read(source_, 0, list);
    return list;
}

std::optional<MappedStream> NTFSContext::locateMFT(std::vector<std::string>& notes) const
{
    for (const auto lcn : { geometry_.mftLCN, geometry_.mirrorLCN }) {
        const bool isMirror = lcn != geometry_.mftLCN;
        const auto offset = geometry_.offsetOf(lcn);
        if (!offset || *offset >= source_.size())
            continue;
        auto bytes = source_.read(*offset, geometry_.recordSize, ReadMode::thorough);
        MFTRecord record;
        if (!NTFSParser::parseRecord(bytes, 0, record))
            continue;
        auto mft = mapMFT(record);
        if (!mft || mft->size() / geometry_.recordSize < minMFTRecords)
            continue;
        if (isMirror)
            notes.emplace_back("$MFT-posten var beskadiget – $MFTMirr blev brugt.");
        if (!record.fixupOK)
            notes.emplace_back("$MFT-posten har fejl i opdateringssekvensen.");
        return mft;
    }
    notes.emplace_back(
        "$MFT kunne ikke findes. Kør en dyb scanning for at genopbygge fra løse MFT-poster.");
    return std::nullopt;
}

/// The MFT as its own record says, extension records and all. None when the record holds no data
/// that lies in clusters.
std::optional<MappedStream> NTFSContext::mapMFT(MFTRecord& record) const
{
    const auto map = [&]() -> std::optional<MappedStream> {
        auto merged = NTFSContent::merge(*this, record.data);
        if (!merged)
            return std::nullopt;
        return MappedStream(
            limited(extents(merged->runs, merged->size, merged->initSize).extents, source_.size()));
    };
    auto mft = map();
    if (!record.hasAttributeList())
        return mft;

    auto wanted = NTFSParser::extensionsIn(attributeListOf(record), 0);
    Bytes bytes(geometry_.recordSize);
    for (int round = 0; mft && round < maxExtensionRounds; ++round) {
        bool hasGrown = false;
        const auto addIfFound = [&](FileReference reference) {
            MFTRecord extension;
            const bool isFound = reference.number < mft->size() / geometry_.recordSize
                && mft->read(source_, reference.number * geometry_.recordSize, bytes)
                && NTFSParser::parseRecord(bytes, reference.number, extension)
                && NTFSParser::isExtensionOf(extension, reference, record);
            if (isFound)
                NTFSParser::mergeExtension(record, extension);
            hasGrown = hasGrown || isFound;
            return isFound;
        };
        wanted.erase(std::remove_if(wanted.begin(), wanted.end(), addIfFound), wanted.end());
        if (!hasGrown)
            break;
        mft = map();
    }
    return mft;
}

MFTRecords NTFSContext::readAllRecords(const MappedStream& mft, WorkProgress* progress) const
{
    const std::uint64_t recordSize = geometry_.recordSize;
    const std::uint64_t total = mft.size() / recordSize;
    const std::uint64_t batch = std::max<std::uint64_t>(1, batchSize / recordSize);
    MFTRecords records(*this);
    MFTRecord record; // one for all, so that its lists keep their room
    Bytes buffer(static_cast<std::size_t>(std::min(batch, total) * recordSize));
    for (std::uint64_t number = 0; number < total && !isCancelled(progress);) {
        const auto stretch = mft.at(number * recordSize);
        std::uint64_t count = std::min(stretch.length / recordSize, total - number);
        if (stretch.offset || count == 0) {
            // Clusters can be smaller than records: one that begins in this stretch and ends in
            // another is read across.
            count = std::clamp<std::uint64_t>(count, 1, batch);
            const auto bytes
                = std::span(buffer).first(static_cast<std::size_t>(count * recordSize));
            mft.read(source_, number * recordSize, bytes);
            for (std::uint64_t i = 0; i < count; ++i) {
                const auto recordBytes
                    = bytes.subspan(static_cast<std::size_t>(i * recordSize), recordSize);
                if (NTFSParser::parseRecord(recordBytes, number + i, record))
                    records.add(record);
            }
        }
        number += count;
        if (progress != nullptr)
            progress->report(static_cast<double>(number) / static_cast<double>(total),
                "Læser MFT … " + std::to_string(number) + " af " + std::to_string(total)
                    + " poster");
    }
    return records;
}
