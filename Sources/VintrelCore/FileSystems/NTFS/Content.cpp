#include "VintrelCore/FileSystems/NTFS/Content.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <string_view>

namespace NTFSContent {

namespace {

/// Clusters are numbered with signed 64-bit numbers; a fragment that begins beyond this is made up.
constexpr std::uint64_t maxVCN = std::uint64_t { 1 } << 62;

/// NTFS makes compression units of 16 clusters of at most 4 KiB. Of a larger one the claim that it
/// is compressed is not believed.
constexpr std::uint64_t maxUnitBytes = 67'108'864;

/// A sparse file can be larger than its volume, but no system that makes them goes beyond this.
constexpr std::uint64_t maxSparseSize = std::uint64_t { 1 } << 44;

/// Clusters of a deleted file that are asked after.
constexpr std::uint64_t maxClusterChecks = 1'048'576;

constexpr std::size_t bitmapPiece = 1'048'576;

struct DoubtText {
    Doubt doubt;
    std::string_view note;
};

constexpr DoubtText doubtTexts[] = {
    { lacksAttribute, "Dataattributten mangler" },
    { lacksRuns, "Dele af filens placering mangler" },
    { isReused, "Klyngerne er genbrugt af andre filer" },
    { isEncrypted, "EFS-krypteret – kan ikke dekrypteres" },
    { isDamagedRecord, "MFT-posten er delvist beskadiget" },
};

/// The bytes in `clusters`, or `limit` when they are more.
std::uint64_t bytesIn(std::uint64_t clusters, std::uint64_t clusterSize, std::uint64_t limit)
{
    return clusters > limit / clusterSize ? limit : clusters * clusterSize;
}

std::uint64_t clustersIn(const DataFragment::Runs& runs)
{
    std::uint64_t clusters = 0;
    for (const auto& run : runs)
        clusters += std::min(run.clusters, std::numeric_limits<std::uint64_t>::max() - clusters);
    return clusters;
}

/// Bits set among the `count` from `first` on, all of which lie in `bits`.
std::uint64_t countSet(ByteView bits, std::uint64_t first, std::uint64_t count)
{
    std::uint64_t set = 0;
    while (count > 0) {
        const auto at = static_cast<std::int64_t>(first / 8);
        const auto whole = bits.load<LE64>(at);
        const std::uint64_t word
            = (whole ? std::uint64_t { *whole }
                     : bits.uintLE(at, static_cast<int>(bits.size() - first / 8)))
            >> first % 8;
        const std::uint64_t inWord = std::min(count, 64 - first % 8);
        const std::uint64_t mask
            = inWord == 64 ? ~std::uint64_t { 0 } : (std::uint64_t { 1 } << inWord) - 1;
        set += static_cast<std::uint64_t>(std::popcount(word & mask));
        first += inWord;
        count -= inWord;
    }
    return set;
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
    merged.size = hasBeginning
        ? first.dataSize
        : bytesIn(next, context.geometry().clusterSize, std::numeric_limits<std::uint64_t>::max());
    merged.initSize = hasBeginning ? first.initSize : merged.size;
    return merged;
}

Content of(const NTFSContext& context, std::vector<DataFragment>& fragments)
{
    if (fragments.empty())
        return { .data = NoData {}, .size = 0, .doubts = lacksAttribute };
    Content content;
    if (std::ranges::any_of(fragments, &DataFragment::isEncrypted))
        content.doubts |= isEncrypted;
    auto merged = merge(context, fragments);
    const auto& first = fragments.front();
    if (!merged) {
        content.size = first.resident.size();
        if (first.dataSize > content.size)
            content.doubts |= lacksRuns;
        content.data = std::move(fragments.front().resident);
        return content;
    }

    const auto clusterSize = context.geometry().clusterSize;
    const std::uint64_t covered = clustersIn(merged->runs);
    std::uint64_t limit = context.capacity();
    if ((first.isSparse || first.isCompressed)
        && bytesIn(covered, clusterSize, merged->size) == merged->size)
        limit = std::max(limit, maxSparseSize);
    content.size = std::min(merged->size, limit);
    if (merged->hasGaps || content.size < merged->size)
        content.doubts |= lacksRuns;

    auto located = context.extents(merged->runs, content.size, merged->initSize);
    if (!located.isComplete)
        content.doubts |= lacksRuns;
    if (!context.geometry().hasPlace) // clusters without a place say nothing
        return content;
    const std::uint64_t unitClusters
        = first.compressionUnit < 32 ? std::uint64_t { 1 } << first.compressionUnit : 0;
    const bool isUnit = unitClusters > 1 && unitClusters <= maxUnitBytes / clusterSize;
    if (!first.isCompressed || !isUnit) {
        if (first.isCompressed)
            content.doubts |= lacksRuns;
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

AllocationMap AllocationMap::load(const NTFSContext& context, const FileData& bitmap)
{
    AllocationMap map;
    if (const auto* bytes = std::get_if<Bytes>(&bitmap))
        map.bits_ = *bytes;
    const auto* extents = std::get_if<ExtentList>(&bitmap);
    if (extents == nullptr)
        return map;

    auto& source = context.source();
    // Clusters that the source does not hold have nothing to lose; so the bitmap never takes more
    // than its share.
    const std::uint64_t needed = context.capacity() / context.geometry().clusterSize / 8 + 1;
    const auto addGap = [&](std::uint64_t start, std::uint64_t length) {
        if (map.gaps_.empty() || map.gaps_.back().end != start)
            map.gaps_.push_back({ start, start });
        map.gaps_.back().end = start + length;
    };
    for (const auto& extent : *extents) {
        const std::uint64_t start = map.bits_.size();
        const std::uint64_t length = std::min(extent.length, needed - start);
        map.bits_.resize(static_cast<std::size_t>(start + length));
        if (!extent.offset) {
            addGap(start, length);
            continue;
        }
        for (std::uint64_t done = 0; done < length;) {
            const auto piece = std::span(map.bits_).subspan(static_cast<std::size_t>(start + done),
                std::min<std::size_t>(bitmapPiece, length - done));
            const std::uint64_t offset = *extent.offset + done;
            // Unreadable parts are zeros, which would call every cluster free: they are told apart,
            // sector by sector.
            if (source.readReporting(offset, piece, ReadMode::thorough) > 0) {
                for (std::size_t at = 0; at < piece.size(); at += source.sectorSize()) {
                    const auto sector = piece.subspan(
                        at, std::min<std::size_t>(source.sectorSize(), piece.size() - at));
                    if (source.readReporting(offset + at, sector, ReadMode::thorough) > 0)
                        addGap(start + done + at, sector.size());
                }
            }
            done += piece.size();
        }
    }
    return map;
}

AllocationMap::Use AllocationMap::useOf(const FileData& data, const NTFSGeometry& geometry) const
{
    Use use;
    if (const auto* extents = std::get_if<ExtentList>(&data)) {
        for (const auto& extent : *extents) {
            if (!extent.offset || *extent.offset < geometry.base)
                continue;
            const std::uint64_t first = (*extent.offset - geometry.base) / geometry.clusterSize;
            look(first,
                extent.length / geometry.clusterSize + (extent.length % geometry.clusterSize != 0),
                use);
        }
    } else if (const auto* compressed = std::get_if<CompressedRuns>(&data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn)
                look(*run.lcn, run.clusters, use);
    }
    return use;
}

void AllocationMap::look(std::uint64_t first, std::uint64_t count, Use& use) const
{
    count = std::min(count, maxClusterChecks - use.checked);
    if (count == 0)
        return;
    const std::uint64_t end = std::uint64_t { bits_.size() } * 8;
    const std::uint64_t inMap = first < end ? std::min(count, end - first) : 0;
    const std::uint64_t used = countSet(bits_, first, inMap);
    use.isUnknown = use.isUnknown || inMap < count || !isKnown(first, count);
    use.isFirstUsed = use.isFirstUsed
        || (use.checked == 0 && countSet(bits_, first, std::min<std::uint64_t>(1, inMap)) > 0);
    use.checked += count;
    use.used += used;
}

/// Whether the bits of these clusters, which lie in the map, could be read.
bool AllocationMap::isKnown(std::uint64_t first, std::uint64_t count) const
{
    const auto gap = std::ranges::upper_bound(gaps_, first / 8, {}, &Gap::end);
    return gap == gaps_.end() || gap->start > (first + count - 1) / 8;
}

Chance chanceOf(std::uint8_t doubts, const std::optional<AllocationMap::Use>& use)
{
    auto chance = Recoverability::good;
    const auto atBest = [&](Recoverability limit) { chance = std::min(chance, limit); };
    if (use) {
        if (use->isFirstUsed || use->used > use->checked / 2) {
            doubts |= isReused;
            atBest(Recoverability::poor);
        } else if (use->isUnknown) {
            atBest(Recoverability::unknown);
        } else if (use->used > 0) {
            atBest(Recoverability::partial);
        }
    }
    if ((doubts & (lacksRuns | isDamagedRecord)) != 0)
        atBest(Recoverability::partial);
    if ((doubts & (lacksAttribute | isEncrypted)) != 0)
        chance = Recoverability::poor; // which is certain, whatever else is not known
    return { chance, noteOf(doubts) };
}

std::optional<std::string> noteOf(std::uint8_t doubts)
{
    std::optional<std::string> note;
    for (const auto& [doubt, text] : doubtTexts) {
        if ((doubts & doubt) == 0)
            continue;
        if (!note)
            note.emplace();
        else
            note->append("; ");
        note->append(text);
    }
    return note;
}

} // namespace NTFSContent
