#include "VintrelCore/FileSystems/NTFS/StandIn.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace NTFSContent {

namespace {

// [MS-FSCC], Reparse Tags. There are sixteen tags of clouds, told apart by four of their bits.
constexpr std::uint32_t cloudTag = 0x9000'001A;
constexpr std::uint32_t cloudKinds = 0x0000'F000;
constexpr std::uint32_t compressionTag = 0x8000'0017; // IO_REPARSE_TAG_WOF
constexpr std::uint32_t deduplicationTag = 0x8000'0013;

constexpr std::int64_t tagSize = 4;

/// What the tag gives reason to doubt; none for tags that say nothing of the content.
std::optional<Doubt> doubtOf(std::uint32_t reparseTag)
{
    if ((reparseTag & ~cloudKinds) == cloudTag)
        return Doubt::onlyInCloud;
    if (reparseTag == compressionTag)
        return Doubt::compressedByWindows;
    if (reparseTag == deduplicationTag)
        return Doubt::deduplicated;
    return std::nullopt;
}

/// What a content has on the source.
struct Coverage {
    bool hasClusters = false;
    bool hasHoles = false;
};

/// A compressed content has holes in its units that stand for no zeros; so only one without any
/// cluster counts as a hole.
Coverage coverageOf(const FileData& data)
{
    Coverage coverage;
    if (const auto* extents = std::get_if<ExtentList>(&data)) {
        for (const auto& extent : *extents)
            (extent.offset ? coverage.hasClusters : coverage.hasHoles) = true;
    } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        coverage.hasClusters = std::ranges::any_of(
            compressed->runs, [](const CompressedRuns::Run& run) { return run.lcn.has_value(); });
        coverage.hasHoles = !coverage.hasClusters;
    }
    return coverage;
}

} // namespace

std::uint32_t reparseTagOf(const NTFSContext& context, const MFTRecord& record)
{
    const auto offset
        = record.reparseLCN ? context.geometry().offsetOf(*record.reparseLCN) : std::nullopt;
    if (record.reparseTag != 0 || !offset)
        return record.reparseTag;
    return ByteView(context.source().read(*offset, tagSize, ReadMode::thorough)).u32le(0);
}

void unpackStandIn(const NTFSContext& context, MFTRecord& record, Content& content)
{
    const auto coverage = coverageOf(content.data);
    if (!record.packing || content.size == 0 || !coverage.hasHoles || coverage.hasClusters)
        return;
    std::vector<DataFragment> fragments;
    for (auto& stream : record.streams)
        if (stream.name == WOF::streamName)
            fragments.push_back(std::move(stream.data));
    if (fragments.empty())
        return;
    std::erase_if(record.streams,
        [](const StreamFragment& stream) { return stream.name == WOF::streamName; });
    auto packed = assemble(context, fragments);
    WOFContent unpacked {
        .method = *record.packing, .bytes = {}, .extents = {}, .size = content.size
    };
    if (auto* const bytes = std::get_if<Bytes>(&packed.data))
        unpacked.bytes = std::move(*bytes);
    else if (auto* const extents = std::get_if<ExtentList>(&packed.data))
        unpacked.extents = std::move(*extents);
    content.doubts.add(packed.doubts);
    content.data = std::move(unpacked);
}

void judgeStandIn(Content& content, std::uint32_t reparseTag)
{
    const auto doubt = doubtOf(reparseTag);
    const auto coverage = coverageOf(content.data);
    if (!doubt || content.size == 0 || !coverage.hasHoles)
        return;
    content.doubts.add(coverage.hasClusters ? Doubt::partlyElsewhere : *doubt);
    if (!coverage.hasClusters)
        content.data = NoData {};
}

} // namespace NTFSContent
