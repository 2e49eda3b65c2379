#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// Where a record stands in the order of a file-system tree: by object, by kind, and then by what
/// tells apart the records of one kind.
struct APFSTreeKey {
    std::uint64_t id = 0;
    std::uint64_t kind = 0;
    std::uint64_t number = 0; ///< of an extent its logical address, of a name its hash and length
    std::string name {};

    auto operator<=>(
        const APFSTreeKey&) const = default; // NOLINT(modernize-use-nullptr): what = default makes

    /// `isHashed`: directory records have the hash of their name before it.
    static APFSTreeKey decode(ByteView key, bool isHashed);
    /// The key right behind this one.
    APFSTreeKey next() const;
};

/// Keys in a row.
struct APFSKeyRange {
    APFSTreeKey first {};
    std::optional<APFSTreeKey> end {}; ///< the key behind the last one; none: up to the tree's end
};

/// The keys between the first record of a node and the last one; none for a node without records,
/// or a damaged one.
std::optional<APFSKeyRange> keysOf(ByteView node, std::uint64_t blockSize, bool isHashed);

/// A set of keys, as ranges. Used by one thread at a time.
class APFSKeyRanges {
public:
    bool empty() const { return ranges_.empty(); }
    void add(const APFSKeyRange& range);
    void subtract(const APFSKeyRange& range);
    bool contains(const APFSTreeKey& key) const;
    bool intersects(const APFSKeyRange& range) const;

private:
    using Ranges = std::map<APFSTreeKey, std::optional<APFSTreeKey>>; // apart from each other

    Ranges::iterator firstBehind(const APFSTreeKey& key);

    Ranges ranges_;
};
