#include "VintrelCore/FileSystems/Ext/Geometry.h"

#include "VintrelCore/FileSystems/Ext/Checksums.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>

using namespace ExtFormat;

namespace {

constexpr std::uint32_t maxLogBlockSize = 6;    // 64 KiB
constexpr std::uint32_t maxLogClusterSize = 20; // beyond the block size; 1 GiB with blocks of 1 KiB
constexpr std::uint32_t oldInodeSize = 128;
constexpr std::uint32_t minGroupBlocks = 256; // no tool makes smaller groups
constexpr std::uint32_t narrowDescriptor = 32;
constexpr std::uint64_t maxBlocks = std::uint64_t { 1 } << 48;

std::uint32_t blockSizeOf(const Superblock& superblock) { return 1024U << superblock.logBlockSize; }

std::uint32_t inodeSizeOf(const Superblock& superblock)
{
    return superblock.revision == 0 ? oldInodeSize : std::uint32_t { superblock.inodeSize };
}

std::uint32_t descriptorSizeOf(const Superblock& superblock)
{
    const bool isWide = superblock.revision != 0 && (superblock.incompatible & Feature::wide) != 0;
    return isWide ? std::max<std::uint32_t>(superblock.descriptorSize, narrowDescriptor)
                  : narrowDescriptor;
}

std::uint64_t blockCountOf(const Superblock& superblock)
{
    const bool isWide = superblock.revision != 0 && (superblock.incompatible & Feature::wide) != 0;
    return superblock.blockCountLow
        | (isWide ? std::uint64_t { superblock.blockCountHigh } << 32 : 0);
}

bool isPossible(const Superblock& superblock)
{
    if (superblock.magic != superblockMagic || superblock.logBlockSize > maxLogBlockSize)
        return false;
    const auto blockSize = blockSizeOf(superblock);
    const auto inodeSize = inodeSizeOf(superblock);
    const auto descriptorSize = descriptorSizeOf(superblock);
    const bool hasClusters = (superblock.readOnlyCompatible & Feature::clusters) != 0;
    const bool clustersFit = !hasClusters
        || (superblock.logClusterSize >= superblock.logBlockSize
            && superblock.logClusterSize - superblock.logBlockSize <= maxLogClusterSize);
    return std::has_single_bit(inodeSize) && inodeSize >= oldInodeSize && inodeSize <= blockSize
        && std::has_single_bit(descriptorSize) && descriptorSize <= blockSize && clustersFit
        && superblock.blocksPerGroup >= minGroupBlocks && superblock.inodesPerGroup > 0
        && superblock.inodesPerGroup <= 8 * blockSize && superblock.firstDataBlock <= 1
        && blockCountOf(superblock) > superblock.firstDataBlock
        && blockCountOf(superblock) < maxBlocks;
}

bool isPowerOf(std::uint32_t number, std::uint32_t base)
{
    std::uint64_t power = base;
    while (power < number)
        power *= base;
    return power == number;
}

} // namespace

std::optional<ExtGeometry> ExtGeometry::from(const Superblock& superblock, std::uint64_t base)
{
    if (!isPossible(superblock) || base >= std::uint64_t { 1 } << 62)
        return std::nullopt;
    ExtGeometry geometry { .superblock = superblock,
        .base = base,
        .blockCount = blockCountOf(superblock),
        .blockSize = blockSizeOf(superblock),
        .inodeSize = inodeSizeOf(superblock),
        .descriptorSize = descriptorSizeOf(superblock) };
    if (geometry.isReadOnly(Feature::clusters))
        geometry.clusterBlocks = 1U << (superblock.logClusterSize - superblock.logBlockSize);
    const auto groups
        = unitsFor(geometry.blockCount - superblock.firstDataBlock, superblock.blocksPerGroup);
    const auto inodeGroups = unitsFor(superblock.inodeCount, superblock.inodesPerGroup);
    // The last group can be too small for an inode table, and is then none.
    if (groups > std::uint64_t { 1 } << 32 || inodeGroups == 0)
        return std::nullopt;
    geometry.groupCount = static_cast<std::uint32_t>(std::min(groups, inodeGroups));
    geometry.checksumSeed = geometry.isIncompatible(Feature::checksumSeed)
        ? std::uint32_t { superblock.checksumSeed }
        : ExtChecksums::crc32c(ExtChecksums::start, superblock.uuid);
    return geometry;
}

bool ExtGeometry::isCompatible(std::uint32_t feature) const
{
    return superblock.revision != 0 && (superblock.compatible & feature) != 0;
}

bool ExtGeometry::isIncompatible(std::uint32_t feature) const
{
    return superblock.revision != 0 && (superblock.incompatible & feature) != 0;
}

bool ExtGeometry::isReadOnly(std::uint32_t feature) const
{
    return superblock.revision != 0 && (superblock.readOnlyCompatible & feature) != 0;
}

std::uint64_t ExtGeometry::firstBlockOf(std::uint32_t group) const
{
    return superblock.firstDataBlock + std::uint64_t { group } * superblock.blocksPerGroup;
}

std::uint32_t ExtGeometry::groupOf(std::uint64_t block) const
{
    const auto first = std::min<std::uint64_t>(superblock.firstDataBlock, block);
    return static_cast<std::uint32_t>((block - first) / superblock.blocksPerGroup);
}

std::uint64_t ExtGeometry::inodeCount() const
{
    return std::min<std::uint64_t>(
        superblock.inodeCount, std::uint64_t { groupCount } * superblock.inodesPerGroup);
}

std::uint64_t ExtGeometry::tableBlocks() const
{
    return unitsFor(std::uint64_t { superblock.inodesPerGroup } * inodeSize, blockSize);
}

std::uint64_t ExtGeometry::descriptorBlocks() const
{
    const auto blocks = unitsFor(std::uint64_t { groupCount } * descriptorSize, blockSize);
    return isIncompatible(Feature::metaGroups) ? 1 : blocks + superblock.reservedDescriptorBlocks;
}

std::uint32_t ExtGeometry::groupsTogether() const
{
    constexpr std::uint32_t maxLogGroups = 16;
    return 1U << std::min<std::uint32_t>(superblock.logGroupsPerFlex, maxLogGroups);
}

bool ExtGeometry::hasBackup(std::uint32_t group) const
{
    if (group == 0)
        return true;
    if (isCompatible(Feature::sparseSuper2))
        return std::ranges::any_of(
            superblock.backupGroups, [&](LE32 backup) { return backup == group; });
    return group == 1 || !isReadOnly(Feature::sparseSuper) || isPowerOf(group, 3)
        || isPowerOf(group, 5) || isPowerOf(group, 7);
}

std::string ExtGeometry::label() const
{
    const auto end = std::ranges::find(superblock.label, std::uint8_t { 0 });
    return { superblock.label.begin(), end };
}

namespace ExtSuperblock {

std::optional<Superblock> decode(ByteView bytes)
{
    const auto superblock = bytes.load<Superblock>(0);
    return superblock && isPossible(*superblock) ? superblock : std::nullopt;
}

bool isSound(ByteView bytes)
{
    const auto superblock = bytes.load<Superblock>(0);
    if (!superblock)
        return false;
    const bool hasChecksum
        = superblock->revision != 0 && (superblock->readOnlyCompatible & Feature::checksums) != 0;
    constexpr auto covered = offsetof(Superblock, checksum);
    return !hasChecksum
        || ExtChecksums::crc32c(ExtChecksums::start, bytes.sub(0, covered)) == superblock->checksum;
}

} // namespace ExtSuperblock
