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

} // namespace

std::optional<Merged> merge(const NTFSContext& context, std::vector<DataFragment>& fragments)
{
    if (fragments.empty() || fragments.front().isResident)
        return std::nullopt;
    std::ranges::stable_sort(fragments, {}, &DataFragment::startVCN);

    Merged merged;
    std::uint64_t next = 0; // the VCN behind the runs so far
    for (const auto& fragment : fragments) {
        if (fragment.isResident || fragment.startVCN > maxVCN || next > maxVCN) {
            merged.hasGaps = true;
            continue;
        }
        if (fragment.startVCN > next) {
            merged.runs.push_back({ std::nullopt, fragment.startVCN - next });
            merged.hasGaps = true;
            next = fragment.startVCN;
        }
        std::uint64_t known
            = next - fragment.startVCN; // clusters of an earlier fragment, which stays
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
    Content content;
    if (std::ranges::any_of(fragments, &DataFragment::isEncrypted))
        content.doubts.add(Doubt::encrypted);
    auto merged = merge(context, fragments);
    const auto& first = fragments.front();
    if (!merged) {
        content.size = first.resident.size();
        if (first.dataSize > content.size)
            content.doubts.add(Doubt::missingRuns);
        content.data = std::move(fragments.front().resident);
        return content;
    }

    const auto clusterSize = context.geometry().clusterSize;
    const std::uint64_t covered = clusterCount(merged->runs);
    std::uint64_t limit = context.capacity();
    if ((first.isSparse || first.isCompressed)
        && saturatingMultiply(covered, clusterSize) >= merged->size)
        limit = std::max(limit, maxSparseSize);
    content.size = std::min(merged->size, limit);
    if (merged->hasGaps || content.size < merged->size)
        content.doubts.add(Doubt::missingRuns);

    auto located = context.extents(merged->runs, content.size, merged->initSize);
    if (!located.isComplete)
        content.doubts.add(Doubt::missingRuns);
    if (!context.geometry().hasPlace) // clusters without a place say nothing
        return content;
    const std::uint64_t unitClusters
        = first.compressionUnit < 32 ? std::uint64_t { 1 } << first.compressionUnit : 0;
    const bool isUnit = unitClusters > 1 && unitClusters <= maxUnitBytes / clusterSize;
    if (!first.isCompressed || !isUnit) {
        if (first.isCompressed)
            content.doubts.add(Doubt::missingRuns);
        content.data = std::move(located.extents);
        return content;
    }
    // Runs stay what they are, also those that lie nowhere: a run turned into a hole would make its
    // unit a compressed one.
    CompressedRuns compressed { .runs = std::move(merged->runs),
        .clusterSize = clusterSize,
        .unitClusters = unitClusters,
        .volumeOffset = context.geometry().base };
    if (merged->initSize < content.size)
        compressed.initializedSize = merged->initSize;
    content.data = std::move(compressed);
    return content;
}

} // namespace NTFSContent
