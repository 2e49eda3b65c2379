#include "VintrelCore/Carving/Formats/RememberedSearch.h"

#include <algorithm>

std::optional<std::uint64_t> RememberedSearch::next(std::uint64_t from, std::uint64_t limit)
{
    limit = std::min(limit, reader_.size());
    while (from < limit) {
        const auto behind = searched_.upper_bound(from);
        if (behind != searched_.begin() && std::prev(behind)->second > from) {
            const std::uint64_t end = std::prev(behind)->second;
            const auto match = matches_.lower_bound(from);
            if (match != matches_.end() && *match < std::min(end, limit))
                return *match;
            from = end;
            continue;
        }
        const std::uint64_t end
            = behind != searched_.end() ? std::min(behind->first, limit) : limit;
        const auto match = reader_.find(pattern_, from, end);
        if (match)
            matches_.insert(*match);
        remember(from, match ? *match + 1 : end);
    }
    return std::nullopt;
}

void RememberedSearch::windowMoved(std::uint64_t offset)
{
    reader_.windowMoved();
    matches_.erase(matches_.begin(), matches_.lower_bound(offset));
    while (!searched_.empty() && searched_.begin()->second <= offset)
        searched_.erase(searched_.begin());
}

void RememberedSearch::remember(std::uint64_t from, std::uint64_t to)
{
    auto range = searched_.emplace(from, to).first;
    if (const auto next = std::next(range); next != searched_.end() && next->first == to) {
        range->second = next->second;
        searched_.erase(next);
    }
    if (range != searched_.begin() && std::prev(range)->second == from) {
        std::prev(range)->second = range->second;
        searched_.erase(range);
    }
}
