#include "VintrelCore/FileSystems/HFSPlus/Forks.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/HFSPlus/BTree.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>
#include <limits>

using namespace HFSPlusFormat;

namespace {

/// What the metadata files may take of memory.
constexpr std::uint64_t maxExtentsFile = 268'435'456;
constexpr std::uint64_t maxAllocationFile = 536'870'912;

/// Blocks of a deleted file that are looked up in the allocation file.
constexpr std::uint64_t maxBlockChecks = 1'048'576;

/// Bytes of the allocation file whose bits are counted together.
constexpr std::size_t countedGroup = 64;

std::size_t overflowRecordLength(ByteView bytes)
{
    constexpr std::size_t length
        = sizeof(OverflowKey) + extentsPerRecord * sizeof(ExtentDescriptor);
    const auto key = bytes.load<OverflowKey>(0);
    return key && key->key.length == overflowKeyLength && bytes.size() >= length ? length : 0;
}

/// A fork of a file, as one number.
std::uint64_t forkKey(std::uint32_t fileID, std::uint8_t forkType)
{
    return std::uint64_t { forkType } << 32 | fileID;
}

void addUsed(HFSPlusExtents& extents, const ExtentDescriptor& stored)
{
    if (stored.blockCount != 0)
        extents.push_back({ stored.startBlock, stored.blockCount });
}

} // namespace

HFSPlusForks::HFSPlusForks(DiskSource& source, std::uint64_t base, const VolumeHeader& header)
    : source_(source)
    , base_(base)
    , blockSize_(header.start.blockSize)
    , totalBlocks_(header.start.totalBlocks)
{
    loadOverflow(header.extentsFile);
    loadAllocation(header.allocationFile);
}

void HFSPlusForks::loadOverflow(const ForkData& extentsFile)
{
    auto file = open(extentsFile, extentsFileID, maxExtentsFile);
    auto tree = HFSPlusBTree::open(file, { .recordLength = overflowRecordLength });
    if (!tree) {
        overflowHealth_ = { .isUnusable = file.size() != 0, .lostBytes = file.lostParts().total() };
        return;
    }
    tree->forEachLeafRecord(
        [this](ByteView record, std::uint32_t node) { addOverflow(record, node); });
    overflowHealth_ = tree->health(file);
    for (auto& [fork, records] : overflow_) {
        std::erase_if(records, [&](const OverflowExtents& found) {
            return tree->useOf(found.node) == HFSPlusBTree::Use::givenUp;
        });
        std::ranges::stable_sort(records, {}, &OverflowExtents::start);
    }
}

void HFSPlusForks::addOverflow(ByteView record, std::uint32_t node)
{
    const auto key = record.load<OverflowKey>(0);
    if (!key || key->key.length != overflowKeyLength)
        return;
    OverflowExtents found { .start = key->startBlock, .node = node, .extents = {} };
    std::int64_t at = sizeof(OverflowKey);
    for (std::size_t i = 0; i < extentsPerRecord; ++i, at += sizeof(ExtentDescriptor))
        if (const auto stored = record.load<ExtentDescriptor>(at))
            addUsed(found.extents, *stored);
    overflow_[forkKey(key->fileID, key->forkType)].push_back(std::move(found));
}

void HFSPlusForks::loadAllocation(const ForkData& allocationFile)
{
    auto file = open(allocationFile, allocationFileID, maxAllocationFile);
    allocation_.resize(static_cast<std::size_t>(file.size()));
    file.read(0, allocation_);
    lostAllocation_ = file.lostParts();
    if (lostAllocation_.total() == allocation_.size())
        allocation_.clear(); // nothing of it was readable
    countAllocated();
}

/// Counts the blocks in use group by group, so that a file of any length is looked up at once.
void HFSPlusForks::countAllocated()
{
    std::uint32_t count = 0;
    for (std::size_t at = 0; at < allocation_.size(); ++at) {
        if (at % countedGroup == 0)
            allocatedBefore_.push_back(count);
        count += static_cast<std::uint32_t>(std::popcount(allocation_[at]));
    }
}

/// How many blocks below this one are in use, as far as the allocation file goes.
std::uint64_t HFSPlusForks::allocatedBefore(std::uint64_t block) const
{
    block = std::min<std::uint64_t>(block, allocation_.size() * 8);
    if (block == 0)
        return 0;
    const auto last = static_cast<std::size_t>((block - 1) / 8); // byte
    auto at = last - last % countedGroup;
    std::uint64_t count = allocatedBefore_[at / countedGroup];
    for (; at < last; ++at)
        count += static_cast<std::uint64_t>(std::popcount(allocation_[at]));
    const unsigned bits = allocation_[last] >> (7 - (block - 1) % 8);
    return count + static_cast<std::uint64_t>(std::popcount(bits));
}

bool HFSPlusForks::isAllocationShort() const
{
    return allocation_.size() < unitsFor(totalBlocks_, 8);
}

HFSPlusExtents HFSPlusForks::inlineExtents(const ForkData& fork)
{
    HFSPlusExtents extents;
    for (const auto& stored : fork.extents)
        addUsed(extents, stored);
    return extents;
}

HFSPlusExtents HFSPlusForks::allExtents(const ForkData& fork, std::uint32_t fileID, Fork kind) const
{
    auto extents = inlineExtents(fork);
    const auto records = overflow_.find(forkKey(fileID, static_cast<std::uint8_t>(kind)));
    if (records == overflow_.end())
        return extents;
    std::uint64_t covered = 0;
    for (const auto& extent : extents)
        covered += extent.blockCount;
    for (const auto& record : records->second) {
        if (record.start != covered)
            continue;
        for (const auto& extent : record.extents)
            covered += extent.blockCount;
        extents.insert(extents.end(), record.extents.begin(), record.extents.end());
    }
    return extents;
}

HFSPlusForkReader HFSPlusForks::open(
    const ForkData& fork, std::uint32_t fileID, std::uint64_t cap) const
{
    // The claimed size is held to what the extents have room for, and that to what the source
    // holds, before memory is asked for.
    std::uint64_t room = 0;
    ExtentList pieces;
    for (const auto& extent : allExtents(fork, fileID)) {
        if (room >= cap)
            break;
        pieces.push_back(pieceOf(extent, std::numeric_limits<std::uint64_t>::max()));
        room += pieces.back().length;
    }
    return HFSPlusForkReader(
        source_, pieces, std::min<std::uint64_t>({ cap, fork.logicalSize, room, source_.size() }));
}

Extent HFSPlusForks::pieceOf(const HFSPlusExtent& extent, std::uint64_t length) const
{
    return { offsetOf(extent.startBlock), std::min(length, extent.blockCount * blockSize_) };
}

bool HFSPlusForks::isOnSource(const Extent& piece) const
{
    return piece.offset && piece.length <= source_.size() - *piece.offset;
}

ClusterUse HFSPlusForks::useOf(const HFSPlusExtents& extents, std::uint64_t size) const
{
    const std::uint64_t needed = std::min(unitsFor(size, blockSize_), maxBlockChecks);
    ClusterUse use { .isUnknown = !hasAllocation() };
    for (const auto& extent : extents) {
        const std::uint64_t count
            = std::min<std::uint64_t>(needed - use.checked, extent.blockCount);
        use.isUnknown = use.isUnknown || isLost(extent.startBlock, count);
        use.foreign
            += allocatedBefore(extent.startBlock + count) - allocatedBefore(extent.startBlock);
        use.isFirstForeign = use.isFirstForeign
            || (use.checked == 0 && count > 0 && isAllocated(extent.startBlock));
        use.checked += count;
    }
    return use;
}

/// The place of a block on the source; none at or beyond its end.
std::optional<std::uint64_t> HFSPlusForks::offsetOf(std::uint64_t block) const
{
    const std::uint64_t offset = block * blockSize_; // below 2^52
    if (base_ >= source_.size() || offset >= source_.size() - base_)
        return std::nullopt;
    return base_ + offset;
}

bool HFSPlusForks::isAllocated(std::uint64_t block) const
{
    return (ByteView(allocation_).u8(static_cast<std::int64_t>(block / 8)) & 0x80 >> block % 8)
        != 0;
}

/// Whether a byte of the allocation file that speaks of these blocks could not be read.
bool HFSPlusForks::isLost(std::uint64_t firstBlock, std::uint64_t count) const
{
    return count > 0
        && lostAllocation_.intersects(firstBlock / 8, (firstBlock + count - 1) / 8 + 1);
}

bool HFSPlusForks::addUsedRanges(std::vector<ByteRange>& ranges) const
{
    if (!lostAllocation_.empty() || isAllocationShort())
        return false;
    std::uint64_t block = 0;
    while (block < totalBlocks_) {
        if (!isAllocated(block)) {
            block
                += block % 8 == 0 && allocation_[static_cast<std::size_t>(block / 8)] == 0 ? 8 : 1;
            continue;
        }
        const auto start = offsetOf(block);
        if (!start)
            break;
        while (block < totalBlocks_ && isAllocated(block))
            ++block;
        ranges.push_back({ *start, std::min(base_ + block * blockSize_, source_.size()) });
    }
    return true;
}
