#pragma once

#include "VintrelCore/Foundation/ByteRange.h"

#include <cstdint>
#include <map>
#include <optional>

/// A set of numbers that lie in ranges: offsets, blocks or clusters. It holds ranges that neither
/// overlap nor touch, in ascending order. Used by one thread at a time.
class RangeSet {
public:
    using Ranges = std::map<std::uint64_t, std::uint64_t>;

    /// Adds [start, end), of which any part may be in the set already. An empty range adds nothing.
    void add(std::uint64_t start, std::uint64_t end);
    void remove(std::uint64_t start, std::uint64_t end);

    bool contains(std::uint64_t value) const;
    /// Whether any number of [start, end) is in the set.
    bool intersects(std::uint64_t start, std::uint64_t end) const;
    /// The first range that ends behind `value`: the one that holds it, or the next one.
    std::optional<ByteRange> firstEndingBehind(std::uint64_t value) const;

    /// How many numbers are in the set.
    std::uint64_t total() const { return total_; }
    bool empty() const { return ends_.empty(); }
    /// The ranges' ends, by their starts.
    const Ranges& ranges() const { return ends_; }

private:
    Ranges ends_;
    std::uint64_t total_ = 0;
};
