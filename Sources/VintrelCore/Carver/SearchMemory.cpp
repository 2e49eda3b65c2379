#include "VintrelCore/Carver/SearchMemory.h"

#include <algorithm>

std::optional<std::uint64_t> SearchMemory::find(
    RandomReader& reader, std::string_view pattern, std::uint64_t from, std::uint64_t limit)
{
    const std::uint64_t start = reader.start();
    auto known = std::ranges::find(known_, pattern, &Known::pattern);
    if (known == known_.end())
        known = known_.insert(known_.end(), { pattern, 0, 0, false });
    if (start + from < known->from || start + from > known->to)
        *known = { pattern, start + from, start + from, false };

    if (!known->matches && known->to < start + std::min(limit, reader.size())) {
        const auto search = reader.search(pattern, known->to - start, limit);
        known->to = start + search.searchedTo;
        known->matches = search.match.has_value();
    }
    if (!known->matches || known->to - start >= limit)
        return std::nullopt;
    return known->to - start;
}
