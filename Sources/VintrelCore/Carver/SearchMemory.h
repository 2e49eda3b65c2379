#pragma once

#include "VintrelCore/RandomReader.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

/// Searches through the source for end marks, which candidates one behind the other would repeat over the same
/// gigabyte: what one search learned answers the next ones.
class SearchMemory {
public:
    /// As RandomReader::find: the first match in [from, limit), counted from the reader's start. `pattern` is a
    /// literal.
    std::optional<std::uint64_t> find(
        RandomReader& reader, std::string_view pattern, std::uint64_t from, std::uint64_t limit);

private:
    /// No match begins in [from, to). At `to` there is one, or the search ended there.
    struct Known {
        std::string_view pattern;
        std::uint64_t from; ///< absolute on the source, like `to`
        std::uint64_t to;
        bool matches;
    };

    std::vector<Known> known_; // one for each pattern
};
