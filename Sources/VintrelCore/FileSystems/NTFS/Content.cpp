#include "VintrelCore/FileSystems/NTFS/Content.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

namespace NTFSContent {

namespace {

/// Clusters are numbered with signed 64-bit numbers; a fragment that begins beyond this is made up.
constexpr std::uint64_t maxVCN = std::uint64_t { 1 } << 62;

/// NTFS makes compression units of 16 clusters of at most 4 KiB. Of a larger one the claim that it
/// is compressed is not believed.
constexpr std::uint64_t maxUnitBytes = 67'108'864;

/// A sparse file can be larger than its volume, but no system that makes them goes beyond this.
constexpr std::uint64_t maxSparseSize = std::uint64_t { 1 } << 44;

/// Adds the runs of a fragment behind those up to VCN `next`, which moves on. Clusters that an
/// earlier fragment has stay as they are.
void append(Merged& merged, std::uint64_t& next, const DataFragment& fragment)
{
    if (fragment.startVCN > next) {
        merged.runs.push_back({ std::nullopt, fragment.startVCN - next });
        merged.hasGaps = true;
        next = fragment.startVCN;
    }
    std::uint64_t known = next - fragment.startVCN;
    for (auto run : fragment.runs) {
        const std::uint64_t skipped = std::min(known, run.clusters);
        known -= skipped;
        if (skipped == run.clusters)
            continue;
        if (run.lcn)
            *run.lcn += skipped;
        run.clusters -= skipped;
        next += run.clusters;
        merged.runs.push_back(run);
        if (next > maxVCN)
            break;
    }
}

Content takeResident(DataFragment& fragment)
{
    Content content;
    content.size = fragment.resident.size();
    if (fragment.dataSize > content.size)
        content.doubts.add(Doubt::missingRuns);
    content.data = std::move(fragment.resident);
    return content;
}

/// The size of the content, but not more than the volume and the source could hold. A sparse or
/// compressed one may be larger than both, as long as its runs say so.
std::uint64_t possibleSize(
    const NTFSContext& context, const Merged& merged, const DataFragment& first)
{
    std::uint64_t limit = context.capacity();
    const std::uint64_t covered
        = saturatingMultiply(clusterCount(merged.runs), context.geometry().clusterSize);
    if ((first.isSparse || first.isCompressed) && covered >= merged.size)
        limit = std::max(limit, maxSparseSize);
    return std::min(merged.size, limit);
}

/// The clusters in a compression unit ("NTFS Documentation", Compression; the units themselves hold
/// the LZNT1 format of [MS-XCA]); none when the content has no units that are possible.
std::optional<std::uint64_t> unitClusters(const NTFSContext& context, const DataFragment& first)
{
    const std::uint64_t clusters
        = first.compressionUnit < 32 ? std::uint64_t { 1 } << first.compressionUnit : 0;
    return clusters > 1 && clusters <= maxUnitBytes / context.geometry().clusterSize
        ? std::optional(clusters)
        : std::nullopt;
}

bool hasOffset(const Extent& extent) { return extent.offset.has_value(); }

Content takeClusters(const NTFSContext& context, Merged merged, const DataFragment& first)
{
    Content content;
    content.size = possibleSize(context, merged, first);
    auto located = context.extents(merged.runs, content.size, merged.initSize);
    // What was never written needs no place on a volume whose own is known.
    const bool hasWritten = !context.geometry().hasPlace || merged.initSize > 0;
    if (!located.isComplete && content.size > 0 && hasWritten
        && std::ranges::none_of(located.extents, hasOffset)) {
        content.doubts.add(Doubt::unknownPlace);
        return content;
    }
    if (merged.hasGaps || content.size < merged.size || !located.isComplete)
        content.doubts.add(Doubt::missingRuns);

    const auto unit = unitClusters(context, first);
    if (!first.isCompressed || !unit) {
        if (first.isCompressed)
            content.doubts.add(Doubt::missingRuns);
        content.data = std::move(located.extents);
        return content;
    }
    // Runs stay what they are, also those that lie nowhere: a run turned into a hole would make its
    // unit a compressed one.
    CompressedRuns compressed { .runs = std::move(merged.runs),
        .clusterSize = context.geometry().clusterSize,
        .unitClusters = *unit,
        .volumeOffset = context.geometry().base };
    if (merged.initSize < content.size)
        compressed.initializedSize = merged.initSize;
    content.data = std::move(compressed);
    return content;
}

} // namespace

std::optional<Merged> merge(const NTFSContext& context, std::vector<DataFragment>& fragments)
{
    if (fragments.empty() || fragments.front().isResident)
        return std::nullopt;
    std::ranges::stable_sort(fragments, {}, &DataFragment::startVCN);

    Merged merged;
    std::uint64_t next = 0; // the VCN behind the runs so far
    for (const auto& fragment : fragments) {
        if (fragment.isResident || fragment.startVCN > maxVCN || next > maxVCN)
            merged.hasGaps = true;
        else
            append(merged, next, fragment);
    }
    const auto& first = fragments.front();
    const bool hasBeginning = first.startVCN == 0;
    merged.size
        = hasBeginning ? first.dataSize : saturatingMultiply(next, context.geometry().clusterSize);
    merged.initSize = hasBeginning ? first.initSize : merged.size;
    return merged;
}

Content assemble(const NTFSContext& context, std::vector<DataFragment>& fragments)
{
    if (fragments.empty())
        return { .data = NoData {}, .size = 0, .doubts = Doubt::missingDataAttribute };
    const bool isEncrypted = std::ranges::any_of(fragments, &DataFragment::isEncrypted);
    auto merged = merge(context, fragments);
    auto content = merged ? takeClusters(context, std::move(*merged), fragments.front())
                          : takeResident(fragments.front());
    if (isEncrypted)
        content.doubts.add(Doubt::encrypted);
    return content;
}

} // namespace NTFSContent
