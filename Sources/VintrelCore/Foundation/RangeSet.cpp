#include "VintrelCore/Foundation/RangeSet.h"

#include <algorithm>
#include <iterator>
#include <utility>

void RangeSet::add(std::uint64_t start, std::uint64_t end)
{
    if (start >= end)
        return;
    remove(start, end);
    total_ += end - start;
    const auto next = ends_.lower_bound(start);
    const bool joinsNext = next != ends_.end() && next->first == end;
    if (next != ends_.begin() && std::prev(next)->second == start) {
        std::prev(next)->second = joinsNext ? next->second : end;
        if (joinsNext)
            ends_.erase(next);
    } else if (joinsNext) {
        const auto behind = std::next(next);
        auto node = ends_.extract(next);
        node.key() = start;
        ends_.insert(behind, std::move(node));
    } else {
        ends_.emplace_hint(next, start, end);
    }
}

void RangeSet::remove(std::uint64_t start, std::uint64_t end)
{
    auto range = ends_.upper_bound(start);
    if (range != ends_.begin() && std::prev(range)->second > start)
        --range;
    while (range != ends_.end() && range->first < end) {
        const auto [rangeStart, rangeEnd] = *range;
        total_ -= std::min(rangeEnd, end) - std::max(rangeStart, start);
        if (rangeStart < start) {
            range->second = start;
            ++range;
            if (rangeEnd > end)
                ends_.emplace_hint(range, end, rangeEnd);
        } else if (rangeEnd > end) { // eaten up from the front: no memory is asked for
            auto node = ends_.extract(range++);
            node.key() = end;
            ends_.insert(range, std::move(node));
            return;
        } else {
            range = ends_.erase(range);
        }
    }
}

bool RangeSet::contains(std::uint64_t value) const
{
    const auto range = firstEndingBehind(value);
    return range && range->start <= value;
}

bool RangeSet::intersects(std::uint64_t start, std::uint64_t end) const
{
    const auto range = firstEndingBehind(start);
    return range && range->start < end;
}

std::optional<ByteRange> RangeSet::firstEndingBehind(std::uint64_t value) const
{
    auto range = ends_.upper_bound(value);
    if (range != ends_.begin() && std::prev(range)->second > value)
        --range;
    if (range == ends_.end())
        return std::nullopt;
    return ByteRange { range->first, range->second };
}
