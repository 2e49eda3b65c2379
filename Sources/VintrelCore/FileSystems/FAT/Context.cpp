#include "VintrelCore/FileSystems/FAT/Context.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <algorithm>

namespace {

/// The FAT of the largest volume that any system makes is a third larger than 512 MiB; beyond this
/// the size is damage.
constexpr std::uint64_t maxFATSize = 805'306'368;

/// From here on an entry means "last cluster of its chain".
std::uint32_t endMark(FileSystemType type)
{
    switch (type) {
    case FileSystemType::fat12:
        return 0xFF8;
    case FileSystemType::fat16:
        return 0xFFF8;
    default:
        return 0x0FFFFFF8;
    }
}

/// Bits of an entry in the table.
std::uint64_t entryBits(FileSystemType type)
{
    switch (type) {
    case FileSystemType::fat12:
        return 12;
    case FileSystemType::fat16:
        return 16;
    default:
        return 32;
    }
}

/// Calls `visit(at, length)` for the sectors that are all zero in `first`, as unreadable ones are,
/// but not in `second`. Both are as long.
template <class Visit>
void forEachLostSector(ByteView first, ByteView second, std::uint64_t sectorSize, Visit visit)
{
    const std::uint64_t size = first.size();
    for (std::uint64_t at = 0; at < size; at += sectorSize) {
        const auto place = static_cast<std::int64_t>(at);
        const auto length = static_cast<std::int64_t>(std::min(sectorSize, size - at));
        if (first.isAllZero(place, length) && !second.isAllZero(place, length))
            visit(place, length);
    }
}

void copyRange(Bytes& to, const Bytes& from, std::int64_t at, std::int64_t length)
{
    std::copy_n(from.begin() + at, length, to.begin() + at);
}

} // namespace

/// The first entry repeats the kind of the medium, all its other bits being set, and the low bits
/// of the second one are set.
bool FATContext::beginsTable(ByteView table)
{
    constexpr std::uint8_t lowestMedium = 0xF0;
    return table.u8(0) >= lowestMedium && table.u8(1) == 0xFF;
}

FATContext::FATContext(DiskSource& source, FATGeometry geometry, SecondFAT secondFAT)
    : source_(source)
    , geometry_(std::move(geometry))
{
    load(secondFAT);
    const std::uint64_t entries = loadedEntries();
    used_ = ClusterBits(entries);
    seen_ = ClusterBits(entries);
    for (std::uint32_t cluster = 2; cluster < entries; ++cluster)
        if (entry(cluster) != 0)
            used_.insert(cluster);
}

void FATContext::load(SecondFAT secondFAT)
{
    fatUnavailable_ = geometry_.fatSize == 0 || geometry_.fatSize > maxFATSize;
    if (fatUnavailable_)
        return;
    // No more is read than the clusters need and the source holds; entries beyond that count as
    // free.
    const std::uint64_t needed
        = ((std::uint64_t { geometry_.heap.count } + 2) * entryBits(geometry_.type) + 7) / 8;
    const std::uint64_t onSource
        = source_.size() > geometry_.fatOffset ? source_.size() - geometry_.fatOffset : 0;
    const auto length
        = static_cast<std::int64_t>(std::min({ geometry_.fatSize, needed, onSource }));
    auto first = source_.readReporting(geometry_.fatOffset, length, ReadMode::thorough);
    if (first.badBytes > 0)
        repairFAT(first);
    else if (geometry_.fatCount > 1 && geometry_.areFATsMirrored)
        compareFATs(first.data, secondFAT);
    fat_ = std::move(first.data);
}

/// Takes from the second copy what the first one lacks, and counts what is missing in both.
void FATContext::repairFAT(ReadReport& first)
{
    const auto sectorSize = geometry_.bytesPerSector;
    if (geometry_.fatCount < 2) {
        unreadableSectors_ = unitsFor(first.badBytes, sectorSize);
        return;
    }
    const auto secondOffset = geometry_.fatOffset + geometry_.fatSize;
    const auto second = source_.readReporting(
        secondOffset, static_cast<std::int64_t>(first.data.size()), ReadMode::thorough);
    forEachLostSector(first.data, second.data, sectorSize,
        [&](auto at, auto length) { copyRange(first.data, second.data, at, length); });
    for (std::uint64_t at = 0; second.badBytes > 0 && at < first.data.size(); at += sectorSize)
        if (source_.hasBadSectors(geometry_.fatOffset + at, sectorSize)
            && source_.hasBadSectors(secondOffset + at, sectorSize))
            ++unreadableSectors_;
}

/// Asks the second copy for sectors of the first that are zeros, if it is one: a boot sector may be
/// wrong about it.
void FATContext::compareFATs(Bytes& first, SecondFAT secondFAT)
{
    const auto second = source_.read(geometry_.fatOffset + geometry_.fatSize,
        static_cast<std::int64_t>(first.size()), ReadMode::thorough);
    if (!beginsTable(second))
        return;
    forEachLostSector(first, second, geometry_.bytesPerSector, [&](auto at, auto length) {
        ++zeroedSectors_;
        if (secondFAT == SecondFAT::forZeros)
            copyRange(first, second, at, length);
    });
}

std::uint64_t FATContext::loadedEntries() const
{
    return std::min<std::uint64_t>(
        fat_.size() * 8 / entryBits(geometry_.type), std::uint64_t { geometry_.heap.count } + 2);
}

std::uint32_t FATContext::entry(std::uint32_t cluster) const
{
    const ByteView table(fat_);
    const std::int64_t number = cluster;
    switch (geometry_.type) {
    case FileSystemType::fat12: {
        // Two entries in three bytes: the even one has the low 12 bits of the 16 that begin in its
        // first byte, the odd one the high 12 bits.
        const std::uint32_t pair = table.u16le(number + number / 2);
        return cluster % 2 != 0 ? pair >> 4 : pair & 0xFFF;
    }
    case FileSystemType::fat16:
        return table.u16le(number * 2);
    default:
        return table.u32le(number * 4) & FATGeometry::clusterMask;
    }
}

ClusterChain FATContext::chain(std::uint32_t from, std::uint64_t maxClusters)
{
    const auto& heap = geometry_.heap;
    if (fatUnavailable_)
        return contiguousChain(heap, from, std::max<std::uint64_t>(1, maxClusters));
    return followChain(heap, from, std::min<std::uint64_t>(maxClusters, heap.count),
        endMark(geometry_.type), seen_, [this](std::uint32_t cluster) { return entry(cluster); });
}
