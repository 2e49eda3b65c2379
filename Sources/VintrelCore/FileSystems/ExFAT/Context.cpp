#include "VintrelCore/FileSystems/ExFAT/Context.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"

#include <algorithm>
#include <bit>

namespace {

/// A FAT of this size serves 200 million clusters; beyond it the length is damage.
constexpr std::uint64_t maxFATSize = 805'306'368;

} // namespace

ExFATContext::ExFATContext(DiskSource& source, const ExFATGeometry& geometry)
    : source_(source)
    , geometry_(geometry)
{
    if (geometry_.fatSize == 0 || geometry_.fatSize > maxFATSize
        || geometry_.fatOffset >= source_.size())
        return;
    const std::uint64_t needed = (std::uint64_t { geometry_.heap.count } + 2) * sizeof(LE32);
    const std::uint64_t length
        = std::min({ geometry_.fatSize, needed, source_.size() - geometry_.fatOffset });
    auto table = source_.readReporting(
        geometry_.fatOffset, static_cast<std::int64_t>(length), ReadMode::thorough);
    fatUnavailable_ = table.badBytes == length;
    if (fatUnavailable_)
        return;
    unreadableSectors_ = unitsFor(table.badBytes, source_.sectorSize());
    fat_ = std::move(table.data);
    seen_ = ClusterBits(entryCount());
}

std::uint32_t ExFATContext::entry(std::uint32_t cluster) const
{
    return ByteView(fat_).u32le(std::int64_t { cluster } * 4);
}

ClusterChain ExFATContext::chain(std::uint32_t from, std::uint64_t maxClusters)
{
    if (fatUnavailable_)
        return contiguousChain(geometry_.heap, from, maxClusters);
    return followChain(geometry_.heap, from,
        std::min<std::uint64_t>(maxClusters, geometry_.heap.count), endMark, seen_,
        [this](std::uint32_t cluster) { return entry(cluster); });
}

std::uint64_t ExFATContext::entryCount() const
{
    return fatUnavailable_ ? geometry_.heap.count : fat_.size() / sizeof(LE32);
}

void ExFATContext::loadBitmap(std::uint32_t cluster, std::uint64_t size)
{
    const auto& heap = geometry_.heap;
    const std::uint64_t needed = (std::uint64_t { heap.count } + 7) / 8;
    if (!heap.contains(cluster) || size < needed || needed > source_.size())
        return;
    // The bitmap has a chain like any file; where that is broken it is where formatting put it, in
    // one piece.
    const auto clusters = chain(cluster, heap.clustersFor(needed)).clusters;
    const auto extents = clusters.size() == heap.clustersFor(needed)
        ? heap.extents(clusters, needed)
        : ExtentList { heap.contiguous(cluster, needed) };
    used_ = ClusterBits(std::uint64_t { heap.count } + 2);
    std::uint64_t read = 0;
    std::uint64_t badBytes = 0;
    Bytes piece;
    for (const auto& extent : extents) {
        for (std::uint64_t done = 0; done < extent.length; done += piece.size()) {
            piece.resize(
                static_cast<std::size_t>(std::min<std::uint64_t>(extent.length - done, 1 << 16)));
            badBytes += source_.readReporting(
                *extent.offset + done, std::span(piece), ReadMode::thorough);
            for (const auto byte : piece) {
                for (unsigned bits = byte; bits != 0; bits &= bits - 1)
                    used_.insert(static_cast<std::uint32_t>(read * 8 + 2)
                        + static_cast<std::uint32_t>(std::countr_zero(bits)));
                ++read;
            }
        }
    }
    // A sector of it that is missing would call everything that it covers free.
    bitmapUnavailable_ = badBytes > 0 || read < needed;
}
