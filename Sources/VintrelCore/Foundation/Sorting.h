#pragma once

#include <algorithm>
#include <functional>
#include <utility>

/// Sorts what mostly comes in its order already, which takes one pass then. No two elements may be
/// equal where their order matters.
template <class Range, class Compare = std::ranges::less, class Projection = std::identity>
void sortIfNeeded(Range& range, Compare compare = {}, Projection projection = {})
{
    if (!std::ranges::is_sorted(range, std::ref(compare), std::ref(projection)))
        std::ranges::sort(range, std::move(compare), std::move(projection));
}
