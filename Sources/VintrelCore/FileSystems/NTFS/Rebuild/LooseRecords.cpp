#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/Tree.h"

#include <algorithm>
#include <bit>

namespace NTFSRebuild {

namespace {

constexpr std::uint64_t minClusterSize = 512;
constexpr std::uint64_t maxClusterSize = 2'097'152;

/// Whether this could be a copy of a record of the volume that it lies on.
bool canBeCopyOn(const NTFSDeepInfo& volume, const LooseRecord& loose)
{
    const auto& geometry = volume.geometry;
    return loose.offset >= geometry.base && loose.offset - geometry.base < geometry.volumeSize
        && loose.size == geometry.recordSize && loose.number < volume.mft.size() / loose.size;
}

/// Whether this is an old copy of a record of a volume that it lies on: defragmenting leaves pieces
/// of the MFT behind, and snapshots keep them. The system's own records are alike on all volumes,
/// and say where an MFT lay.
bool isListed(RecordReader& reader, const LooseRecord& loose,
    std::span<const NTFSParser::ListedVolume> volumes)
{
    if (loose.number < NTFSParser::firstUserRecord)
        return false;
    MFTRecord record, current;
    return std::ranges::any_of(volumes, [&](const NTFSParser::ListedVolume& listed) {
        return canBeCopyOn(*listed.info, loose) && reader.readFrom(listed.info->mft, loose, current)
            && reader.read(loose, record) && describeSameState(record, current);
    });
}

/// Whether $Bitmap lies where a known volume has something.
bool isBitmapOverlaid(
    const NTFSContext& context, MFTRecords& records, std::span<const NTFSParser::KnownUse> used)
{
    const auto* const record = records.systemRecord(NTFSParser::bitmapRecord);
    if (record == nullptr)
        return false;
    auto fragments = record->data;
    const auto bitmap = NTFSContent::assemble(context, fragments).data;
    return std::ranges::any_of(used, [&](const NTFSParser::KnownUse& known) {
        return known.map.useOf(bitmap, known.geometry).foreign > 0;
    });
}

/// No file system has the files of this volume any more, so that they exist nowhere.
void markOrphaned(Volume& volume)
{
    volume.root->forEachDescendant([](FileNode& node, std::size_t) {
        if (node.status == EntryStatus::existing)
            node.status = EntryStatus::orphaned;
    });
}

} // namespace

bool describeSameState(const MFTRecord& one, const MFTRecord& other)
{
    const auto size = [](const MFTRecord& record) {
        return record.data.empty() ? 0 : record.data.front().dataSize;
    };
    if (one.number != other.number || one.names.empty() || other.names.empty()
        || size(one) != size(other))
        return false;
    const auto& name = one.names.front();
    const auto& otherName = other.names.front();
    return name.name == otherName.name && name.parent == otherName.parent
        && name.created == otherName.created;
}

bool RecordReader::read(const LooseRecord& loose, MFTRecord& record)
{
    buffer_.resize(loose.size);
    source_.readReporting(loose.offset, std::span(buffer_), ReadMode::thorough);
    return NTFSParser::parseRecord(buffer_, std::nullopt, record) && record.number == loose.number;
}

bool RecordReader::readFrom(const MappedStream& mft, const LooseRecord& loose, MFTRecord& record)
{
    buffer_.resize(loose.size);
    mft.read(source_, loose.number * loose.size, buffer_);
    return NTFSParser::parseRecord(buffer_, std::nullopt, record) && record.number == loose.number;
}

std::vector<LooseRecord> survey(RecordReader& reader, std::span<const std::uint64_t> offsets,
    std::span<const NTFSParser::ListedVolume> volumes, const WorkProgress* progress)
{
    std::vector<LooseRecord> records;
    std::array<std::uint8_t, NTFSParser::recordHeaderSize> header;
    for (const auto offset : offsets) {
        if (isCancelled(progress))
            break;
        reader.source().readReporting(offset, std::span(header), ReadMode::thorough);
        const auto identity = NTFSParser::identityOfRecord(header);
        if (!identity)
            continue;
        const LooseRecord loose { offset, identity->number, identity->size };
        if (!isListed(reader, loose, volumes))
            records.push_back(loose);
    }
    return records;
}

bool isClusterSize(std::uint64_t bytes)
{
    return bytes >= minClusterSize && bytes <= maxClusterSize && std::has_single_bit(bytes);
}

std::optional<std::uint64_t> clusterSizeOf(const MFTRecord& record)
{
    if (record.data.empty())
        return std::nullopt;
    const auto& fragment = record.data.front();
    const std::uint64_t clusters = clusterCount(fragment.runs);
    if (fragment.isResident || fragment.startVCN != 0 || fragment.isSparse || fragment.isCompressed
        || clusters == 0 || fragment.allocatedSize % clusters != 0)
        return std::nullopt;
    const std::uint64_t size = fragment.allocatedSize / clusters;
    return isClusterSize(size) ? std::optional(size) : std::nullopt;
}

std::optional<std::uint64_t> firstLCN(const MFTRecord& record)
{
    if (record.data.empty() || record.data.front().isResident || record.data.front().startVCN != 0
        || record.data.front().runs.empty())
        return std::nullopt;
    return record.data.front().runs.front().lcn;
}

std::unique_ptr<Volume> buildFromRecords(const NTFSContext& context, MFTRecords records,
    std::size_t count, MappedStream mft, const NTFSParser::RebuildHints& hints)
{
    if (isBitmapOverlaid(context, records, hints.used))
        records.dropSystemRecord(NTFSParser::bitmapRecord);
    records.setLooseIndices(hints.indexBlocks);
    auto volume = NTFSParser::buildVolume(
        context, std::move(records), std::move(mft), "Dyb scanning, MFT-poster");
    if (volume->root->children().empty())
        return nullptr;
    markOrphaned(*volume);
    volume->notes.push_back(
        "Genopbygget ud fra " + std::to_string(count) + " MFT-poster fundet ved dyb scanning.");
    if (!context.geometry().hasPlace)
        volume->notes.emplace_back(
            "Volumenets placering kendes ikke. Kun små filer kan gendannes.");
    return volume;
}

} // namespace NTFSRebuild
