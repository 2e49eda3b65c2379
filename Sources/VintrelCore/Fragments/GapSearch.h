#pragma once

#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Fragments/Space.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_set>
#include <vector>

class WorkProgress;

namespace Fragments {

/// A file as far as it is put together. The last piece reaches as far as free space does, and the
/// file breaks somewhere inside it.
struct Assembly {
    std::vector<ByteRange> pieces; ///< on the source, in the order of the file
    /// Of the worst join so far: how much rougher it is than the file is elsewhere. 0: unknown.
    double strain = 0;
    bool isDoubtful = false;  ///< whether a piece was chosen where others would have done as well
    double promise = 0;       ///< larger: likelier to be right
    bool isConfirmed = false; ///< whether what was read later vouches for the last join
};

/// Pieces that a checker followed up to the file's own end.
struct Solution {
    std::vector<ByteRange> pieces; ///< together as long as the file
    Content::Proof proof = Content::Proof::none;
    double strain = 0;
    bool isStrainKnown = false; ///< whether a file of this kind can tell
    bool isDoubtful = false;
};

/// How much rougher than its usual a file may be at a join that is held to be right.
constexpr double mostStrain = 2;

/// Bytes that may still be looked at.
struct Budget {
    std::uint64_t left = 0;

    bool isSpent() const { return left == 0; }
    void take(std::uint64_t bytes) { left -= bytes < left ? bytes : left; }
};

/// Looks for where a file goes on whose content contradicts itself: at every place where its piece
/// may end, every free unit is tried. Serves one file. Used by one thread.
class GapSearch {
public:
    struct Result {
        std::vector<Solution> solutions;
        std::vector<Assembly> unfinished; ///< the best that break again, with one piece more
        bool wasCutShort = false;         ///< whether places were left out that might have done

        void add(Result&& other);
    };

    /// `beginnings`: where other files begin, and none goes on. `end`: of this file, where it is
    /// known. `progress` may be none.
    GapSearch(BlockCache& cache, const Space& space,
        const std::unordered_set<std::uint64_t>& beginnings, std::string_view extension,
        const std::optional<KnownEnd>& end, const WorkProgress* progress);

    /// What the content says when the pieces are read one after another.
    Content::Finding follow(const std::vector<ByteRange>& pieces) const;
    /// Tries all free units, nearest first. The budget is used up.
    Result search(const Assembly& assembly, Budget& budget) const;
    /// Tries only to go from one of these units to another, in their order.
    Result searchAt(
        const std::vector<std::uint64_t>& units, const Assembly& assembly, Budget& budget) const;
    /// Tries one continuation for each cut: the byte `position` of the file lies at
    /// `position + shift` of the source, modulo 2^64.
    Result searchMapped(const Assembly& assembly, std::uint64_t shift, Budget& budget) const;
    /// The same file with one of its joins moved by units, as far as the content does not
    /// contradict it: what a search for the next piece did not see of the joins before it.
    std::vector<Solution> slid(const Solution& solution, Budget& budget) const;
    /// A piece that begins at a unit and goes on as far as free space does.
    ByteRange pieceFrom(std::uint64_t offset) const;

private:
    /// A place where the last piece may end, and a checker that has read up to there.
    struct Cut {
        std::uint64_t position; ///< in the file
        std::unique_ptr<Content::Checker> checker;
    };
    /// A unit that goes on without a contradiction for a while.
    struct Survivor {
        const Cut* cut;
        std::uint64_t unit;
        double strain = 0;
        std::optional<std::uint64_t> brokenAt = {}; ///< none: not yet
        std::uint64_t firm = 0;                     ///< as far as it was followed
    };

    /// Some cuts at a time: where the likeliest give a file that is certain, the rest need no look.
    struct Batch {
        const Assembly* assembly;
        std::vector<Survivor> survivors;
        std::uint64_t lastCut; ///< of all that are tried
    };

    Result searchFrom(const std::vector<Cut>& cuts, const std::vector<std::uint64_t>& units,
        const Assembly& assembly, Budget& budget) const;
    std::vector<Cut> cutsOf(const Assembly& assembly) const;
    std::vector<Cut> cutsBetween(
        const Assembly& assembly, std::uint64_t lowest, std::uint64_t highest) const;
    std::vector<std::uint64_t> unitsAround(const Assembly& assembly, std::uint64_t firstCut) const;
    bool mayGoOnAt(std::uint64_t unit) const;
    static bool isBlind(const Cut& cut);
    std::optional<Survivor> tryUnit(
        const Assembly& assembly, const Cut& cut, std::uint64_t unit, Budget& budget) const;
    bool followSurvivors(Batch batch, Budget& budget, Result& result) const;
    bool followToEnd(
        const Batch& batch, const Survivor& survivor, Budget& budget, Result& result) const;
    Assembly unfinished(const Batch& batch, const Survivor& survivor) const;
    std::vector<ByteRange> joined(
        const Assembly& assembly, const Cut& cut, std::uint64_t unit) const;

    BlockCache& cache_;
    const Space& space_;
    const std::unordered_set<std::uint64_t>& beginnings_;
    std::string_view extension_;
    const std::optional<KnownEnd> end_;
    const WorkProgress* progress_;
    bool isContainer_;
    bool isCompressed_;
    bool hasChecksums_;
};

} // namespace Fragments
