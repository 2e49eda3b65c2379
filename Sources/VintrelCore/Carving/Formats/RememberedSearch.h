#pragma once

#include "VintrelCore/Disk/RandomReader.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string_view>

/// The places of one pattern on a source. Candidates one behind the other would search the same
/// gigabyte for their end marks; here every byte is searched once at most, for all of them
/// together.
class RememberedSearch {
public:
    /// `pattern` is a literal.
    RememberedSearch(DiskSource& source, SweepWindow* window, std::string_view pattern)
        : reader_(source, 0, window)
        , pattern_(pattern)
    {
    }

    /// The first match in [from, limit), all three in bytes on the source.
    std::optional<std::uint64_t> next(std::uint64_t from, std::uint64_t limit);

    /// To be told whenever the sweep's window has moved. What lies before it is forgotten.
    void windowMoved(std::uint64_t offset);

private:
    using Ranges = std::map<std::uint64_t, std::uint64_t>;

    void remember(std::uint64_t from, std::uint64_t to);

    RandomReader reader_;
    std::string_view pattern_;
    Ranges searched_; ///< ranges whose matches are known, by their starts; they do not touch
    std::set<std::uint64_t> matches_;
};
