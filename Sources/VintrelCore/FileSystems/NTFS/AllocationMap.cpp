#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>

namespace {

/// Clusters of a deleted file that are asked after.
constexpr std::uint64_t maxClusterChecks = 1'048'576;

/// The bitmap is read in pieces of this size.
constexpr std::size_t pieceSize = 1'048'576;

constexpr std::uint64_t clustersPerByte = 8;

/// Bits set among the `count` from `first` on, all of which lie in `bits`.
std::uint64_t countSet(ByteView bits, std::uint64_t first, std::uint64_t count)
{
    std::uint64_t set = 0;
    while (count > 0) {
        const auto at = static_cast<std::int64_t>(first / clustersPerByte);
        const auto whole = bits.load<LE64>(at);
        const std::uint64_t word
            = (whole ? std::uint64_t { *whole }
                     : bits.uintLE(at, static_cast<int>(bits.size() - first / clustersPerByte)))
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

AllocationMap AllocationMap::load(const NTFSContext& context, const FileData& bitmap)
{
    AllocationMap map;
    if (const auto* bytes = std::get_if<Bytes>(&bitmap))
        map.bits_ = *bytes;
    const auto* extents = std::get_if<ExtentList>(&bitmap);
    if (extents == nullptr)
        return map;
    // Clusters that the source does not hold have nothing to lose; so the bitmap never takes more
    // than its share of the memory.
    const std::uint64_t needed
        = context.capacity() / context.geometry().clusterSize / clustersPerByte + 1;
    for (const auto& extent : *extents)
        map.append(context.source(),
            { extent.offset, std::min(extent.length, needed - map.bits_.size()) });
    return map;
}

void AllocationMap::append(DiskSource& source, const Extent& extent)
{
    const std::uint64_t start = bits_.size();
    bits_.resize(static_cast<std::size_t>(start + extent.length));
    if (!extent.offset) {
        addGap(start, extent.length);
        return;
    }
    for (std::uint64_t done = 0; done < extent.length;) {
        const auto piece = std::span(bits_).subspan(static_cast<std::size_t>(start + done),
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, extent.length - done)));
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

void AllocationMap::addGap(std::uint64_t start, std::uint64_t length)
{
    if (gaps_.empty() || gaps_.back().end != start)
        gaps_.push_back({ start, start });
    gaps_.back().end = start + length;
}

ClusterUse AllocationMap::useOf(const FileData& data, const NTFSGeometry& geometry) const
{
    ClusterUse use;
    if (const auto* extents = std::get_if<ExtentList>(&data)) {
        for (const auto& extent : *extents)
            if (extent.offset && *extent.offset >= geometry.base)
                addUse(use, (*extent.offset - geometry.base) / geometry.clusterSize,
                    unitsFor(extent.length, geometry.clusterSize));
    } else if (const auto* compressed = std::get_if<CompressedRuns>(&data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn)
                addUse(use, *run.lcn, run.clusters);
    }
    return use;
}

void AllocationMap::addUse(ClusterUse& use, std::uint64_t first, std::uint64_t count) const
{
    count = std::min(count, maxClusterChecks - use.checked);
    if (count == 0)
        return;
    const std::uint64_t end = bits_.size() * clustersPerByte;
    const std::uint64_t inMap = first < end ? std::min(count, end - first) : 0;
    use.isUnknown = use.isUnknown || inMap < count || !isKnown(first, count);
    if (use.checked == 0)
        use.isFirstForeign = countSet(bits_, first, std::min<std::uint64_t>(1, inMap)) > 0;
    use.foreign += countSet(bits_, first, inMap);
    use.checked += count;
}

/// Whether the bits of these clusters, which lie in the map, could be read.
bool AllocationMap::isKnown(std::uint64_t first, std::uint64_t count) const
{
    const auto gap = std::ranges::upper_bound(gaps_, first / clustersPerByte, {}, &Gap::end);
    return gap == gaps_.end() || gap->start > (first + count - 1) / clustersPerByte;
}
