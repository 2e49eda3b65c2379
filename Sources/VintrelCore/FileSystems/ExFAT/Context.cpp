// Geometry of an exFAT volume, and what its FAT and its allocation bitmap say.

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <limits>

namespace {

struct BootSector {
    std::array<std::uint8_t, 11> jump;   //   0  jump and "EXFAT   "
    std::array<std::uint8_t, 53> zeros;  //  11  where FAT has its fields
    LE64 partitionOffset;                //  64  in sectors; not used
    LE64 volumeLength;                   //  72  in sectors
    LE32 fatOffset, fatLength;           //  80, 84  in sectors
    LE32 heapOffset;                     //  88  in sectors
    LE32 clusterCount;                   //  92
    LE32 rootCluster;                    //  96
    LE32 serialNumber;                   // 100
    LE16 revision;                       // 104
    LE16 flags;                          // 106  bit 0: the second FAT is in use
    std::uint8_t bytesPerSectorShift;    // 108  9 … 12
    std::uint8_t sectorsPerClusterShift; // 109  with the former at most 25
    std::uint8_t fatCount;               // 110  1 or 2
    std::array<std::uint8_t, 401> more;  // 111
};
static_assert(sizeof(BootSector) == 512 && offsetof(BootSector, flags) == 106
    && offsetof(BootSector, fatCount) == 110);

constexpr int maxClusterShift = 25; // 32 MiB
constexpr std::uint32_t maxClusters = 0xFFFFFFF5;

/// A FAT of this size serves 200 million clusters; beyond it the length is damage.
constexpr std::uint64_t maxFATSize = 805'306'368;

} // namespace

std::optional<ExFATGeometry> ExFATGeometry::from(ByteView boot, std::uint64_t base)
{
    const auto sector = boot.load<BootSector>(0);
    if (!sector || sector->bytesPerSectorShift < 9 || sector->bytesPerSectorShift > 12
        || sector->bytesPerSectorShift + sector->sectorsPerClusterShift > maxClusterShift)
        return std::nullopt;
    const int shift = sector->bytesPerSectorShift;
    const std::uint64_t sectors = sector->volumeLength;
    const auto heapSector = static_cast<std::uint64_t>(sector->heapOffset);
    if (sectors > std::numeric_limits<std::uint64_t>::max() >> shift || heapSector >= sectors
        || sector->clusterCount == 0)
        return std::nullopt;
    const std::uint64_t volumeSize = sectors << shift;
    if (base > std::numeric_limits<std::uint64_t>::max() - volumeSize)
        return std::nullopt;

    const std::uint64_t clustersInVolume = (sectors - heapSector) >> sector->sectorsPerClusterShift;
    const auto count
        = std::min<std::uint64_t>({ sector->clusterCount, clustersInVolume, maxClusters });
    const bool usesSecond = (sector->flags & 1) != 0 && sector->fatCount == 2;
    const std::uint64_t fatSector = std::uint64_t { sector->fatOffset }
        + (usesSecond ? std::uint64_t { sector->fatLength } : 0);
    if (count == 0)
        return std::nullopt;
    return ExFATGeometry {
        .fatOffset = base + (fatSector << shift),
        .fatSize = std::uint64_t { sector->fatLength } << shift,
        .heap = { .offset = base + (heapSector << shift),
            .clusterSize = std::uint64_t { 1 } << (shift + sector->sectorsPerClusterShift),
            .count = static_cast<std::uint32_t>(count) },
        .rootCluster = sector->rootCluster,
        .volumeSize = volumeSize,
        .activeFAT = usesSecond ? 1 : 0,
    };
}

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
