#pragma once

#include "VintrelCore/Fragments/Anchors.h"
#include "VintrelCore/Fragments/GapSearch.h"
#include "VintrelCore/Fragments/PiecedBytes.h"
#include "VintrelCore/Fragments/Seams.h"
#include "VintrelCore/Fragments/Space.h"
#include "VintrelCore/Model/CarvedFile.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

class DiskSource;
class WorkProgress;

namespace Fragments {

/// The look after a sweep at what it found to begin and could not follow to its end. Used once, by
/// one thread.
class SecondLook {
public:
    /// `space`: with all that living files hold. `progress` may be none.
    SecondLook(DiskSource& source, Space space, const WorkProgress* progress);

    /// Puts together what it can: files in pieces join `finds`, or take the place of the find that
    /// has the same head where their content proves them. Finds inside of a proved file of a kind
    /// that holds others vanish. `finds` stay in ascending order.
    void run(std::vector<CarvedFile>& finds, std::span<const BrokenHead> heads);

private:
    static constexpr std::size_t mostPieces = 4;

    /// What was found of a file with a number of pieces.
    struct Level {
        std::vector<Assembly> assemblies; ///< that break in the last of so many pieces
        std::vector<Solution> solutions;  ///< of so many pieces, none of them proved
        bool isDone = false;              ///< whether it was searched as far as it may be
        bool wasCutShort = false;
    };

    /// A file that could not be followed in one piece.
    struct Job {
        std::uint64_t offset = 0;
        std::string extension;
        std::optional<KnownEnd> end = {};
        CarvedFile* find = nullptr;               ///< with the same head; none where there is none
        std::array<Level, mostPieces + 1> levels; ///< by the number of pieces, from 1 on
        bool isSolved = false;
    };

    void checkFind(CarvedFile& find);
    void checkHead(const BrokenHead& head);
    void searchAll(std::size_t pieces, std::uint64_t share, bool isLast);
    void findAnchors();
    bool searchMapped(Job& job, std::size_t pieces);
    void search(Job& job, std::size_t pieces, std::uint64_t share, bool isLast);
    void addSlid(const Job& job, Level& level);
    bool settleIfProved(Job& job);
    void settle(Job& job, const Solution& solution, Joins joins);
    void settleDoubtful();
    bool settleLikeliest(Job& job, Seams& seams, double lead);
    void addRemnants(std::span<const CarvedFile> finds);
    static const Solution* provedOf(const Job& job);
    static std::vector<const Solution*> solutionsOf(const Job& job);
    GapSearch gapSearch(const Job& job)
    {
        return { cache_, space_, beginnings_, job.extension, job.end, progress_ };
    }

    Space space_;
    const WorkProgress* progress_;
    BlockCache cache_;
    Budget all_;
    std::unordered_set<std::uint64_t> beginnings_;
    std::vector<Anchor> anchors_;
    std::vector<Job> jobs_;
    std::vector<CarvedFile> solved_;
};

} // namespace Fragments
