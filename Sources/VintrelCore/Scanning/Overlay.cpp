#include "VintrelCore/Scanning/Overlay.h"

#include "VintrelCore/FileSystems/FileSystems.h"
#include "VintrelCore/Fragments/Kinds.h"
#include "VintrelCore/Model/Chance.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace Overlay {

namespace {

/// Ranges in ascending order that neither overlap nor touch.
using Ranges = std::vector<ByteRange>;

/// Larger numbers are no clusters of any disk, and in bytes they could overflow.
constexpr std::uint64_t maxCluster = std::uint64_t { 1 } << 40;

/// Where the first byte of a file's content lies, and all of it; holes are left out.
struct Layout {
    std::optional<std::uint64_t> first;
    Ranges ranges; ///< in the order of the file
};

Layout layoutOf(const FileData& data)
{
    Layout layout;
    const auto add = [&](std::uint64_t start, std::uint64_t length) {
        if (length > std::numeric_limits<std::uint64_t>::max() - start)
            return;
        if (!layout.first)
            layout.first = start;
        layout.ranges.push_back({ start, start + length });
    };
    if (const auto* extents = extentsOf(data)) {
        for (const auto& extent : *extents)
            if (extent.offset && extent.length > 0)
                add(*extent.offset, extent.length);
    } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn && *run.lcn < maxCluster && run.clusters < maxCluster)
                add(compressed->volumeOffset + *run.lcn * compressed->clusterSize,
                    run.clusters * compressed->clusterSize);
    }
    return layout;
}

void addLivingFiles(const Volume& volume, Ranges& ranges)
{
    volume.root->forEachDescendant([&](const FileNode& node, std::size_t) {
        if (node.status == EntryStatus::existing)
            std::ranges::move(layoutOf(node.data).ranges, std::back_inserter(ranges));
    });
}

Ranges sorted(Ranges ranges)
{
    std::ranges::sort(ranges, {}, &ByteRange::start);
    std::size_t count = 0;
    for (const auto& range : ranges) {
        if (count > 0 && range.start <= ranges[count - 1].end)
            ranges[count - 1].end = std::max(ranges[count - 1].end, range.end);
        else
            ranges[count++] = range;
    }
    ranges.resize(count);
    return ranges;
}

/// What the trusted volumes have in use: as their own bitmaps and tables say, or where those cannot
/// be read by the files that exist.
Ranges usedRanges(DiskSource& source, std::span<const std::unique_ptr<Volume>> trusted)
{
    Ranges ranges;
    for (const auto& volume : trusted) {
        const auto* const reader = readerFor(volume->type);
        if (reader == nullptr || reader->addUsedRanges == nullptr
            || !reader->addUsedRanges(source, *volume, ranges))
            addLivingFiles(*volume, ranges);
    }
    return sorted(std::move(ranges));
}

bool isHit(const Ranges& used, const ByteRange& range)
{
    const auto next = std::ranges::upper_bound(used, range.start, {}, &ByteRange::end);
    return next != used.end() && next->start < range.end;
}

/// What speaks against a content that lies where others have something.
Doubts doubtsOf(const Ranges& used, const FileData& data)
{
    const auto layout = layoutOf(data);
    if (!layout.first)
        return {};
    if (isHit(used, { *layout.first, *layout.first + 1 }))
        return Doubt::reusedBlocks;
    const bool isPartlyHit = std::ranges::any_of(
        layout.ranges, [&](const ByteRange& range) { return isHit(used, range); });
    return isPartlyHit ? Doubts(Doubt::partlyReused) : Doubts();
}

} // namespace

void judge(DiskSource& source, std::span<const std::unique_ptr<Volume>> trusted,
    std::span<const std::unique_ptr<Volume>> found)
{
    if (found.empty())
        return;
    const auto used = usedRanges(source, trusted);
    for (const auto& volume : found) {
        volume->root->forEachDescendant([&](FileNode& node, std::size_t) {
            judgeFurther(node, doubtsOf(used, node.data));
            if (node.attachments)
                for (auto& attachment : *node.attachments)
                    judgeFurther(attachment, doubtsOf(used, attachment.data));
        });
    }
}

void overrule(std::span<CarvedFile> finds, std::span<const std::unique_ptr<Volume>> volumes)
{
    std::unordered_map<std::uint64_t, CarvedFile*> byOffset;
    // Most walks follow lengths, which lead over other bytes as well; checksums do not.
    for (auto& find : finds)
        if (find.exact && find.pieces.empty()
            && !(find.isProved && Fragments::hasChecksums(find.ext)))
            byOffset.emplace(find.offset, &find);
    if (byOffset.empty())
        return;
    for (const auto& volume : volumes)
        volume->root->forEachDescendant([&](const FileNode& node, std::size_t) {
            const auto* const extents = extentsOf(node.data);
            if (node.recoverability != Recoverability::good || extents == nullptr
                || extents->size() < 2 || !extents->front().offset)
                return;
            const auto found = byOffset.find(*extents->front().offset);
            if (found != byOffset.end() && found->second->size == node.size)
                found->second->isOverruled = true;
        });
}

} // namespace Overlay
