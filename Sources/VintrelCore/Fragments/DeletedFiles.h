#pragma once

#include "VintrelCore/Fragments/Anchors.h"
#include "VintrelCore/Fragments/GapSearch.h"
#include "VintrelCore/Fragments/Look.h"
#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Fragments/Space.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

class WorkProgress;

namespace Fragments {

/// Deleted files of a volume of which only the first cluster and the size are known. Their places
/// are guesses: the content decides where it can, and clusters that are in use belong to none of
/// them. Used once, by one thread.
class DeletedFiles {
public:
    /// `space`: with all that the volume has in use. `grid`: the volume's clusters.
    DeletedFiles(BlockCache& cache, Space& space, const Grid& grid, const WorkProgress* progress);

    /// Gives the files other places where they lie in other places, and judges their chances anew.
    /// What is proved of them owns its space from then on. Files that are not guesses stay as they
    /// are.
    void settle(std::span<FileNode* const> files, Look look);

private:
    struct Guess {
        FileNode* node;
        std::string extension;
        std::uint64_t start; ///< in bytes on the source
        bool isSettled = false;
        bool isBroken = false; ///< the content contradicts itself in every place that was tried
    };

    struct Found {
        Solution solution;
        bool isOnly; ///< whether every place was tried, and no other one would do
    };

    void settleByContent(std::span<Guess> guesses);
    static bool isGuess(const FileNode& file);
    bool isHeadForeign(Guess& guess);
    bool settleIfProved(Guess& guess, const std::vector<ByteRange>& pieces);
    void prepareSearch(std::span<const Guess> guesses);
    void search(Guess& guess);
    std::optional<Found> find(
        const Guess& guess, const GapSearch& gaps, const std::vector<std::uint64_t>& units);
    std::vector<std::uint64_t> edgesBehind(std::uint64_t start) const;
    void settleLeft(Guess& guess);
    std::vector<ByteRange> freeFrom(const Guess& guess, const Space& space) const;
    Space withOthers(std::span<const Guess> guesses) const;
    std::vector<ByteRange> contiguous(const Guess& guess) const;
    void place(
        Guess& guess, const std::vector<ByteRange>& pieces, Recoverability chance, bool isCertain);

    BlockCache& cache_;
    Space& space_;
    const Grid grid_;
    const WorkProgress* progress_;
    Budget all_;
    RangeSet claimed_; ///< by files of which it is not certain that they have it
    std::unordered_set<std::uint64_t> beginnings_;
    std::vector<std::uint64_t> edges_; ///< where deleted files begin and end, in rising order
    std::vector<Anchor> anchors_;
};

} // namespace Fragments
