#pragma once

#include "VintrelCore/Disk/RandomReader.h"
#include "VintrelCore/Foundation/RangeSet.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string_view>

/// The places of one pattern on a source. Candidates one behind the other would search the same
/// gigabyte for their end marks; here every byte is searched once at most, for all of them
/// together. Used by one thread.
class RememberedSearch {
public:
    /// `pattern` is a literal.
    RememberedSearch(DiskSource& source, SweepWindow* window, std::string_view pattern)
        : reader_(source, 0, window)
        , pattern_(pattern)
    {
    }

    /// The first match in [from, limit), all three in bytes on the source. None when there is none
    /// before the end of the source.
    std::optional<std::uint64_t> next(std::uint64_t from, std::uint64_t limit);

    /// To be told whenever the sweep's window has moved. What lies before it is forgotten.
    void windowMoved(std::uint64_t offset);

private:
    RandomReader reader_;
    std::string_view pattern_;
    RangeSet searched_; ///< whose matches are known
    std::set<std::uint64_t> matches_;
};
