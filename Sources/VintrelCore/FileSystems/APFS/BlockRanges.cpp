#include "VintrelCore/FileSystems/APFS/BlockRanges.h"

#include <algorithm>

void APFSBlockRanges::merge()
{
    std::ranges::sort(ranges_, {}, &APFSBlocks::first);
    std::size_t count = 0;
    for (const auto& range : ranges_) {
        if (count > 0 && range.first <= ranges_[count - 1].end)
            ranges_[count - 1].end = std::max(ranges_[count - 1].end, range.end);
        else
            ranges_[count++] = range;
    }
    ranges_.resize(count);
}

bool APFSBlockRanges::intersects(APFSBlocks blocks) const
{
    const auto next = firstEndingBehind(blocks.first);
    return next && next->first < blocks.end;
}

bool APFSBlockRanges::covers(APFSBlocks blocks) const
{
    const auto range = rangeWith(blocks.first);
    return range && range->end >= blocks.end;
}

std::optional<APFSBlocks> APFSBlockRanges::rangeWith(std::uint64_t block) const
{
    const auto next = firstEndingBehind(block);
    return next && next->first <= block ? next : std::nullopt;
}

std::optional<APFSBlocks> APFSBlockRanges::firstEndingBehind(std::uint64_t block) const
{
    const auto next = std::ranges::upper_bound(ranges_, block, {}, &APFSBlocks::end);
    return next != ranges_.end() ? std::optional(*next) : std::nullopt;
}
