#pragma once

#include "VintrelCore/RandomReader.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string_view>

/// The places of one pattern on a source. Candidates one behind the other would search the same gigabyte for their end
/// marks; here every byte is searched once at most, for all of them together.
class RememberedSearch {
public:
    /// `pattern` is a literal.
    RememberedSearch(DiskSource& source, std::string_view pattern)
        : reader_(source, 0)
        , pattern_(pattern)
    {
    }

    /// The first match in [from, limit), all three in bytes on the source.
    std::optional<std::uint64_t> next(std::uint64_t from, std::uint64_t limit);

    /// The bytes that the sweep holds in memory. What lies before them is forgotten.
    void setWindow(std::uint64_t offset, ByteView bytes);

private:
    using Ranges = std::map<std::uint64_t, std::uint64_t>;

    void remember(std::uint64_t from, std::uint64_t to);

    RandomReader reader_;
    std::string_view pattern_;
    Ranges searched_; ///< ranges whose matches are known, by their starts; they do not touch
    std::set<std::uint64_t> matches_;
};
