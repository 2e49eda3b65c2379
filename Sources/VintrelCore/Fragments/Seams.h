#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Fragments/Space.h"

#include <cstdint>
#include <unordered_set>
#include <vector>

namespace Fragments {

/// Tells likely joins from unlikely ones where the content does not: a piece ends where another
/// file begins or has its own, or where what lies behind looks different, and the next one begins
/// likewise. No proof of anything. Serves one look at a source; used by one thread.
class Seams {
public:
    /// `beginnings`: where files begin.
    Seams(
        BlockCache& cache, const Space& space, const std::unordered_set<std::uint64_t>& beginnings)
        : cache_(cache)
        , space_(space)
        , beginnings_(beginnings)
    {
    }

    /// What a file is taken to have, though nothing proves it.
    void take(const std::vector<ByteRange>& pieces);
    /// Whether a part of these pieces is taken already.
    bool isTaken(const std::vector<ByteRange>& pieces) const;
    /// Larger is likelier: the mean over all joins. Comparable between solutions of one file.
    double likelihood(const std::vector<ByteRange>& pieces) const;

private:
    bool isOthers(std::uint64_t offset) const;
    double difference(std::uint64_t left, std::uint64_t right) const;

    BlockCache& cache_;
    const Space& space_;
    const std::unordered_set<std::uint64_t>& beginnings_;
    RangeSet taken_;
};

} // namespace Fragments
