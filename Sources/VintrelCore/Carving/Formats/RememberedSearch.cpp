#include "VintrelCore/Carving/Formats/RememberedSearch.h"

#include <algorithm>

std::optional<std::uint64_t> RememberedSearch::next(std::uint64_t from, std::uint64_t limit)
{
    limit = std::min(limit, reader_.size());
    while (from < limit) {
        const auto searched = searched_.firstEndingBehind(from);
        if (searched && searched->start <= from) {
            const auto match = matches_.lower_bound(from);
            if (match != matches_.end() && *match < std::min(searched->end, limit))
                return *match;
            from = searched->end;
            continue;
        }
        const std::uint64_t end = searched ? std::min(searched->start, limit) : limit;
        const auto match = reader_.find(pattern_, from, end);
        if (match)
            matches_.insert(*match);
        searched_.add(from, match ? *match + 1 : end);
    }
    return std::nullopt;
}

void RememberedSearch::windowMoved(std::uint64_t offset)
{
    reader_.windowMoved();
    matches_.erase(matches_.begin(), matches_.lower_bound(offset));
    searched_.remove(0, offset);
}
