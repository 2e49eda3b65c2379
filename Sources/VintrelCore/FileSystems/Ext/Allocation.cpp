#include "VintrelCore/FileSystems/Ext/Allocation.h"

#include <algorithm>

namespace {

bool isSet(const Bytes& bitmap, std::uint64_t bit)
{
    return bit / 8 < bitmap.size() && (bitmap[bit / 8] >> (bit % 8) & 1) != 0;
}

} // namespace

const Bytes& ExtAllocation::bitmapOf(std::uint32_t group)
{
    const auto found = bitmaps_.find(group);
    if (found != bitmaps_.end())
        return found->second;
    Bytes bitmap;
    if (group < groups_.count() && groups_[group].blockBitmap != 0) {
        if (groups_[group].hasBitmap)
            bitmap = blocks_.read(groups_[group].blockBitmap);
        else
            bitmap = unwrittenBitmap(group);
    }
    return bitmaps_.emplace(group, std::move(bitmap)).first->second;
}

/// What a bitmap would say that was never written: only structures of the volume lie in the group.
Bytes ExtAllocation::unwrittenBitmap(std::uint32_t group) const
{
    const auto& geometry = blocks_.geometry();
    Bytes bitmap(geometry.blockSize);
    const auto first = geometry.firstBlockOf(group);
    const auto hold = [&](std::uint64_t block, std::uint64_t count) {
        const auto end = std::min(block + count, first + geometry.blocksPerGroup());
        for (auto held = std::max(block, first); held < end; ++held) {
            const auto bit = bitOf(held);
            if (bit / 8 < bitmap.size())
                bitmap[bit / 8] = static_cast<std::uint8_t>(bitmap[bit / 8] | 1U << (bit % 8));
        }
    };
    if (geometry.hasBackup(group))
        hold(first, 1 + geometry.descriptorBlocks());
    const auto together = geometry.groupsTogether();
    const auto start = group - group % together;
    const auto end = std::min<std::uint64_t>(std::uint64_t { start } + together, groups_.count());
    for (std::uint32_t other = start; other < end; ++other) {
        hold(groups_[other].blockBitmap, 1);
        hold(groups_[other].inodeBitmap, 1);
        hold(groups_[other].inodeTable, geometry.tableBlocks());
    }
    return bitmap;
}

std::uint64_t ExtAllocation::bitOf(std::uint64_t block) const
{
    const auto& geometry = blocks_.geometry();
    return (block - geometry.firstBlockOf(geometry.groupOf(block))) / geometry.clusterBlocks;
}

bool ExtAllocation::isInUse(std::uint64_t block)
{
    const auto& bitmap = bitmapOf(blocks_.geometry().groupOf(block));
    const auto bit = bitOf(block);
    return bit / 8 < bitmap.size() && (bitmap[bit / 8] >> (bit % 8) & 1) != 0;
}

void ExtAllocation::hold(std::uint64_t first, std::uint64_t count)
{
    const auto& geometry = blocks_.geometry();
    const auto end
        = first + std::min(count, geometry.blockCount - std::min(first, geometry.blockCount));
    for (auto block = first; block < end; ++block) {
        const auto group = geometry.groupOf(block);
        bitmapOf(group);
        auto& bitmap = bitmaps_[group];
        const auto bit = bitOf(block);
        if (bit / 8 < bitmap.size())
            bitmap[bit / 8] = static_cast<std::uint8_t>(bitmap[bit / 8] | 1U << (bit % 8));
    }
}

bool ExtAllocation::addUsedRanges(std::vector<ByteRange>& ranges)
{
    const auto& geometry = blocks_.geometry();
    bool isAnyKnown = false;
    for (std::uint32_t group = 0; group < groups_.count(); ++group) {
        const auto& bitmap = bitmapOf(group);
        isAnyKnown = isAnyKnown || !bitmap.empty();
        const auto first = geometry.firstBlockOf(group);
        const auto blocks = std::min<std::uint64_t>(
            geometry.blocksPerGroup(), geometry.blockCount - std::min(first, geometry.blockCount));
        for (std::uint64_t bit = 0; bit * geometry.clusterBlocks < blocks; ++bit) {
            if (!isSet(bitmap, bit))
                continue;
            const auto start = geometry.offsetOf(first + bit * geometry.clusterBlocks);
            const auto end = start + std::uint64_t { geometry.clusterBlocks } * geometry.blockSize;
            if (!ranges.empty() && ranges.back().end == start)
                ranges.back().end = end;
            else
                ranges.push_back({ start, end });
        }
    }
    return isAnyKnown;
}
