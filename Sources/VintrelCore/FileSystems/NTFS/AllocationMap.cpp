#include "VintrelCore/FileSystems/NTFS/AllocationMap.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>

namespace {

/// The bitmap is read in pieces of this size.
constexpr std::size_t pieceSize = 1'048'576;

constexpr std::uint64_t clustersPerByte = 8;
constexpr std::uint64_t clustersPerWord = 64;
constexpr std::uint64_t clustersPerBlock = 4096; // whose use is counted once

/// More pieces than this are a bitmap of rubbish, and would take memory for nothing.
constexpr std::size_t maxUsedRanges = 4'194'304;

/// The clusters of a word of the bitmap, the first one lowest; those behind its end are free.
std::uint64_t wordAt(ByteView bits, std::uint64_t word)
{
    const auto at = static_cast<std::int64_t>(word * sizeof(std::uint64_t));
    if (const auto whole = bits.load<LE64>(at))
        return *whole;
    const auto left = std::max<std::int64_t>(static_cast<std::int64_t>(bits.size()) - at, 0);
    return bits.uintLE(at, static_cast<int>(left));
}

/// The lowest `count` bits, fewer than 64.
std::uint64_t lowestBits(std::uint64_t count) { return (std::uint64_t { 1 } << count) - 1; }

std::uint64_t countBits(std::uint64_t word)
{
    return static_cast<std::uint64_t>(std::popcount(word));
}

} // namespace

AllocationMap AllocationMap::load(const NTFSContext& context, const FileData& bitmap)
{
    AllocationMap map;
    if (const auto* bytes = std::get_if<Bytes>(&bitmap))
        map.bits_ = *bytes;
    if (const auto* extents = std::get_if<ExtentList>(&bitmap)) {
        // Clusters that the source does not hold have nothing to lose; so the bitmap never takes
        // more than its share of the memory.
        const std::uint64_t needed
            = context.capacity() / context.geometry().clusterSize / clustersPerByte + 1;
        for (const auto& extent : *extents)
            map.append(context.source(),
                { extent.offset, std::min(extent.length, needed - map.bits_.size()) });
    }
    map.countBlocks();
    return map;
}

void AllocationMap::append(DiskSource& source, const Extent& extent)
{
    const std::uint64_t start = bits_.size();
    bits_.resize(static_cast<std::size_t>(start + extent.length));
    const std::uint64_t onSource = extent.offset && *extent.offset < source.size()
        ? std::min(extent.length, source.size() - *extent.offset)
        : 0;
    for (std::uint64_t done = 0; done < onSource;) {
        const auto piece = std::span(bits_).subspan(static_cast<std::size_t>(start + done),
            static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, onSource - done)));
        readPiece(source, *extent.offset + done, piece, start + done);
        done += piece.size();
    }
    if (onSource < extent.length)
        addGap(start + onSource, extent.length - onSource);
}

/// Unreadable parts are zeros, which would call every cluster free: they are told apart, sector by
/// sector.
void AllocationMap::readPiece(
    DiskSource& source, std::uint64_t offset, std::span<std::uint8_t> piece, std::uint64_t start)
{
    if (source.readReporting(offset, piece, ReadMode::thorough) == 0)
        return;
    for (std::size_t at = 0; at < piece.size(); at += source.sectorSize()) {
        const auto sector
            = piece.subspan(at, std::min<std::size_t>(source.sectorSize(), piece.size() - at));
        if (source.readReporting(offset + at, sector, ReadMode::thorough) > 0)
            addGap(start + at, sector.size());
    }
}

void AllocationMap::addGap(std::uint64_t start, std::uint64_t length)
{
    if (gaps_.empty() || gaps_.back().end != start)
        gaps_.push_back({ start, start });
    gaps_.back().end = start + length;
}

bool AllocationMap::isUnreadable() const
{
    return bits_.empty()
        || (gaps_.size() == 1 && gaps_.front().start == 0 && gaps_.front().end == bits_.size());
}

void AllocationMap::countBlocks()
{
    const std::uint64_t words = unitsFor(bits_.size(), sizeof(std::uint64_t));
    constexpr std::uint64_t wordsPerBlock = clustersPerBlock / clustersPerWord;
    usedBeforeBlock_.reserve(static_cast<std::size_t>(words / wordsPerBlock + 1));
    std::uint64_t used = 0;
    for (std::uint64_t word = 0; word <= words; ++word) {
        if (word % wordsPerBlock == 0)
            usedBeforeBlock_.push_back(used);
        used += countBits(wordAt(bits_, word));
    }
}

std::uint64_t AllocationMap::countUsedBefore(std::uint64_t cluster) const
{
    const std::uint64_t block = cluster / clustersPerBlock;
    std::uint64_t used = usedBeforeBlock_[static_cast<std::size_t>(block)];
    const std::uint64_t last = cluster / clustersPerWord;
    for (std::uint64_t word = block * clustersPerBlock / clustersPerWord; word < last; ++word)
        used += countBits(wordAt(bits_, word));
    return used + countBits(wordAt(bits_, last) & lowestBits(cluster % clustersPerWord));
}

ClusterUse AllocationMap::useOf(const FileData& data, const NTFSGeometry& geometry) const
{
    ClusterUse use;
    if (const auto* extents = extentsOf(data)) {
        for (const auto& extent : *extents)
            if (extent.offset && *extent.offset >= geometry.base)
                addUse(use, (*extent.offset - geometry.base) / geometry.clusterSize,
                    unitsFor(extent.length, geometry.clusterSize));
    } else if (const auto* compressed = contentAs<CompressedRuns>(data)) {
        for (const auto& run : compressed->runs)
            if (run.lcn)
                addUse(use, *run.lcn, run.clusters);
    }
    return use;
}

void AllocationMap::addUse(ClusterUse& use, std::uint64_t first, std::uint64_t count) const
{
    if (count == 0)
        return;
    const std::uint64_t end = bits_.size() * clustersPerByte;
    const std::uint64_t inMap = first < end ? std::min(count, end - first) : 0;
    use.isUnknown = use.isUnknown || inMap < count || !isKnown(first, count);
    if (inMap > 0) {
        const std::uint64_t before = countUsedBefore(first);
        if (use.checked == 0)
            use.isFirstForeign = countUsedBefore(first + 1) > before;
        use.foreign += countUsedBefore(first + inMap) - before;
    }
    use.checked += count;
}

/// Whether the bits of these clusters, which lie in the map, could be read.
bool AllocationMap::isKnown(std::uint64_t first, std::uint64_t count) const
{
    const auto gap = std::ranges::upper_bound(gaps_, first / clustersPerByte, {}, &Gap::end);
    return gap == gaps_.end() || gap->start > (first + count - 1) / clustersPerByte;
}

bool AllocationMap::addUsedRanges(const NTFSContext& context, std::vector<ByteRange>& ranges) const
{
    const auto& geometry = context.geometry();
    const std::uint64_t end = unitsFor(context.capacity(), geometry.clusterSize);
    if (!geometry.hasPlace || hasGaps() || bits_.empty()
        || bits_.size() * clustersPerByte < context.capacity() / geometry.clusterSize)
        return false;
    const std::size_t before = ranges.size();
    for (std::uint64_t first = findNext(true, 0, end); first < end;) {
        const std::uint64_t next = findNext(false, first, end);
        if (ranges.size() - before == maxUsedRanges) {
            ranges.resize(before);
            return false;
        }
        // The last cluster can reach beyond the volume's end, and so beyond the source's.
        ranges.push_back({ geometry.base + first * geometry.clusterSize,
            geometry.base + std::min(next * geometry.clusterSize, context.capacity()) });
        first = findNext(true, next, end);
    }
    return true;
}

std::uint64_t AllocationMap::findNext(bool isUsed, std::uint64_t from, std::uint64_t end) const
{
    while (from < end) {
        auto word = wordAt(bits_, from / clustersPerWord);
        word = (isUsed ? word : ~word) & ~lowestBits(from % clustersPerWord);
        if (word != 0)
            return std::min(end,
                roundDown(from, clustersPerWord)
                    + static_cast<std::uint64_t>(std::countr_zero(word)));
        from = roundDown(from, clustersPerWord) + clustersPerWord;
    }
    return end;
}
