#include "VintrelCore/Fragments/DeletedFiles.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <algorithm>

namespace Fragments {

namespace {

constexpr std::uint64_t budgetOfFile = 67'108'864;
constexpr std::uint64_t leastBudget = 4'294'967'296; ///< of all files, or a quarter of the source

constexpr std::string_view guessedWords = "Filens klynger kendes ikke";

std::string checkedExtension(const FileNode& file)
{
    const auto extension = file.fileExtension();
    return extension == "jpeg" ? "jpg" : extension;
}

} // namespace

DeletedFiles::DeletedFiles(
    BlockCache& cache, Space& space, const Grid& grid, const WorkProgress* progress)
    : cache_(cache)
    , space_(space)
    , grid_(grid)
    , progress_(progress)
    , all_ { std::max(leastBudget, cache.source().size() / 4) }
{
}

/// Nothing says where the clusters behind the first one lie: the file is taken to lie in one piece.
bool DeletedFiles::isGuess(const FileNode& file)
{
    const auto* const extents = std::get_if<ExtentList>(&file.data);
    const bool isInOnePiece
        = extents != nullptr && extents->size() == 1 && extents->front().offset && file.size > 0;
    return isInOnePiece && !file.isDirectory()
        && (file.status == EntryStatus::deleted
            || (file.note && file.note->find(guessedWords) != std::string::npos));
}

void DeletedFiles::settle(std::span<FileNode* const> files, Look look)
{
    std::vector<Guess> guesses;
    for (auto* file : files)
        if (isGuess(*file)) {
            const auto start = *std::get<ExtentList>(file->data).front().offset;
            guesses.push_back(
                { .node = file, .extension = checkedExtension(*file), .start = start });
        }
    std::ranges::stable_sort(guesses, {}, &Guess::start); // in the order of the disk
    for (auto& guess : guesses)
        // Of others nobody knows whether anything of theirs is left at their beginnings.
        if (!isCancelled(progress_) && !isHeadForeign(guess)
            && Content::checkerFor(guess.extension))
            beginnings_.insert(guess.start);
    if (look == Look::contents)
        settleByContent(guesses);
    for (auto& guess : guesses)
        if (!guess.isSettled)
            settleLeft(guess);
}

void DeletedFiles::settleByContent(std::span<Guess> guesses)
{
    // First those that are whole where they are thought to be: the rest has less to choose from.
    for (auto& guess : guesses)
        if (!isCancelled(progress_) && !guess.isSettled)
            settleIfProved(guess, contiguous(guess));
    // Files that were deleted later lay around those that were deleted before, as living ones did.
    const auto others = withOthers(guesses);
    for (auto& guess : guesses)
        if (!isCancelled(progress_) && !guess.isSettled && guess.isBroken
            && !settleIfProved(guess, freeFrom(guess, space_)))
            settleIfProved(guess, freeFrom(guess, others));
    prepareSearch(guesses);
    std::size_t count = 0;
    for (auto& guess : guesses) {
        report(progress_, static_cast<double>(count) / static_cast<double>(guesses.size()),
            "Samler filer i stykker … (" + std::to_string(count + 1) + " af "
                + std::to_string(guesses.size()) + ")");
        ++count;
        if (!isCancelled(progress_) && !guess.isSettled && guess.isBroken)
            search(guess);
    }
}

/// Where the files that are still broken may go on and end.
void DeletedFiles::prepareSearch(std::span<const Guess> guesses)
{
    std::vector<std::string_view> extensions;
    for (const auto& guess : guesses) {
        const auto [start, end] = contiguous(guess).front(); // whatever size the entry claims
        edges_.push_back(start);
        edges_.push_back(start + unitsFor(end - start, grid_.unit) * grid_.unit);
        if (!guess.isSettled && guess.isBroken)
            extensions.push_back(guess.extension);
    }
    std::ranges::sort(edges_);
    edges_.erase(std::unique(edges_.begin(), edges_.end()), edges_.end());
    if (!extensions.empty())
        anchors_ = findAnchors(cache_, space_, extensions, progress_);
}

/// A first cluster that is another file's by now, or never was this one's.
bool DeletedFiles::isHeadForeign(Guess& guess)
{
    constexpr std::uint64_t leastHead = 65'536;
    constexpr std::uint64_t leastFollowed = 16; // a mark alone is no head
    if (guess.extension.empty() || !Content::checkerFor(guess.extension)
        || space_.isHeld(guess.start, true))
        return false;
    PiecedBytes file(cache_, cutTo(contiguous(guess), leastHead));
    file.growToEnd();
    const auto checker = Content::checkerFor(guess.extension);
    checker->advance(file);
    const auto& finding = checker->finding();
    if (!finding.isBroken() || finding.firm >= leastFollowed
        || *finding.brokenAt >= leastHead / 128)
        return false;
    guess.node->recoverability = Recoverability::poor;
    guess.node->addNote("Indholdet passer ikke til filtypen");
    guess.isSettled = true;
    return true;
}

bool DeletedFiles::settleIfProved(Guess& guess, const std::vector<ByteRange>& pieces)
{
    const auto checker = Content::checkerFor(guess.extension);
    const bool isFree = std::ranges::all_of(pieces, [&](const ByteRange& piece) {
        return !space_.isHeld(piece.start, true)
            && space_.endOfRun(piece.start, grid_, true) >= piece.end;
    });
    if (!checker || sizeOf(pieces) != guess.node->size)
        return false;
    PiecedBytes file(cache_, pieces);
    file.growToEnd();
    file.end();
    checker->advance(file);
    const auto& finding = checker->finding();
    guess.isBroken |= finding.isBroken();
    const bool isWhole = isFree && finding.isComplete() && *finding.length == guess.node->size;
    if (!isWhole)
        return false;
    // One piece that lengths lead through is as good as it was.
    const bool isCertain = finding.proof > Content::Proof::chain;
    const auto chance = isCertain ? Recoverability::good
        : pieces.size() == 1      ? guess.node->recoverability
                                  : Recoverability::partial;
    place(guess, pieces, chance, true);
    return true;
}

/// Looks for the rest of a file whose content contradicts itself in the free clusters.
void DeletedFiles::search(Guess& guess)
{
    if (space_.isHeld(guess.start, true) || all_.isSpent())
        return;
    const auto piece = ByteRange { guess.start, space_.endOfRun(guess.start, grid_, true) };
    const GapSearch gaps(cache_, space_, beginnings_, guess.extension,
        endFor(guess.extension, { piece }, anchors_, cache_), progress_);
    const auto edges = edgesBehind(guess.start);
    const auto guided = edges.empty() ? std::nullopt : find(guess, gaps, edges);
    if (guided && guided->solution.proof == Content::Proof::checksum)
        return place(guess, guided->solution.pieces, Recoverability::good, true);
    const auto found = find(guess, gaps, {});
    if (!found && !guided)
        return;
    const auto& [solution, isOnly] = found ? *found : *guided;
    const bool isProved = solution.proof == Content::Proof::checksum
        || (isOnly && solution.proof == Content::Proof::decoded
            && (!solution.isStrainKnown || solution.strain > 0));
    // Of what is not certain, that is likelier which begins where others did.
    if (!isProved && guided)
        return place(guess, guided->solution.pieces, Recoverability::unknown, false);
    const auto chance = isProved ? Recoverability::good
        : isOnly                 ? Recoverability::partial
                                 : Recoverability::unknown;
    place(guess, solution.pieces, chance, isProved || isOnly);
}

/// The best that is as long as the file, and with how few pieces it goes; at these units alone,
/// unless there are none.
std::optional<DeletedFiles::Found> DeletedFiles::find(
    const Guess& guess, const GapSearch& gaps, const std::vector<std::uint64_t>& units)
{
    constexpr std::size_t mostAssemblies = 4;
    const std::size_t mostPieces = units.empty() ? 4 : 12;
    Assembly assembly;
    assembly.pieces = { gaps.pieceFrom(guess.start) };
    std::vector<Assembly> open { assembly };
    for (std::size_t pieces = 2; pieces <= mostPieces && !open.empty(); ++pieces) {
        const auto share = std::min(all_.left, budgetOfFile);
        Budget budget { share };
        GapSearch::Result all;
        for (const auto& one : open) {
            for (const auto shift : shiftsFor(guess.extension, one.pieces, anchors_, cache_))
                all.add(gaps.searchMapped(one, shift, budget));
            all.add(units.empty() ? gaps.search(one, budget) : gaps.searchAt(units, one, budget));
        }
        all_.take(share - budget.left);
        std::erase_if(all.solutions,
            [&](const Solution& solution) { return sizeOf(solution.pieces) != guess.node->size; });
        std::ranges::stable_sort(all.solutions, {}, &Solution::strain);
        const auto best = std::ranges::max_element(all.solutions, {}, &Solution::proof);
        if (best != all.solutions.end())
            return Found { *best,
                units.empty() && all.solutions.size() == 1 && !all.wasCutShort && !best->isDoubtful
                    && best->strain <= mostStrain };
        std::ranges::stable_sort(all.unfinished, std::ranges::greater {}, &Assembly::promise);
        if (all.unfinished.size() > mostAssemblies)
            all.unfinished.resize(mostAssemblies);
        open = std::move(all.unfinished);
    }
    return std::nullopt;
}

/// The free clusters at which other deleted files begin, or behind which they end: a file that was
/// written into the holes that they had left goes on there. Those ahead first.
std::vector<std::uint64_t> DeletedFiles::edgesBehind(std::uint64_t start) const
{
    constexpr std::size_t mostEdges = 4096;
    std::vector<std::uint64_t> edges;
    const auto add = [&](std::uint64_t edge) {
        if (edges.size() < mostEdges && !space_.isHeld(edge, true))
            edges.push_back(edge);
    };
    const auto middle = std::ranges::upper_bound(edges_, start);
    std::for_each(middle, edges_.end(), add);
    std::for_each(edges_.begin(), middle, add);
    return edges;
}

/// What no content decided goes by which clusters are free.
void DeletedFiles::settleLeft(Guess& guess)
{
    auto& node = *guess.node;
    if (space_.isHeld(guess.start, true))
        return judgeFurther(node, Doubt::reusedFirstByDeleted);
    // It may just as well be the one that was overwritten.
    const bool isContested = std::ranges::any_of(contiguous(guess),
        [&](const ByteRange& piece) { return claimed_.intersects(piece.start, piece.end); });
    if (isContested)
        judgeFurther(node, Doubt::contestedByDeleted);
    const auto pieces = freeFrom(guess, space_);
    if (pieces.size() < 2 || sizeOf(pieces) != node.size) {
        if (guess.isBroken && node.recoverability == Recoverability::good) {
            node.recoverability = Recoverability::partial;
            node.addNote("Indholdet modsiger sig selv inde i filen");
        }
        return;
    }
    ExtentList extents;
    extents.reserve(pieces.size());
    for (const auto& [start, end] : pieces)
        extents.push_back({ .offset = start, .length = end - start });
    node.data = std::move(extents);
    node.recoverability = Recoverability::partial;
    node.note = "Filen lå i flere stykker; de er gættet";
}

/// The space in which the other deleted files, too, have what they are thought to have.
Space DeletedFiles::withOthers(std::span<const Guess> guesses) const
{
    auto space = space_;
    for (const auto& guess : guesses)
        if (!guess.isBroken)
            for (const auto& piece : contiguous(guess))
                space.hold(piece);
    return space;
}

/// The free clusters from the first one on, round the end of the volume: as a driver gives them
/// out.
std::vector<ByteRange> DeletedFiles::freeFrom(const Guess& guess, const Space& space) const
{
    constexpr std::size_t mostPieces = 65'536;
    std::vector<ByteRange> pieces;
    auto left = guess.node->size;
    auto at = guess.start;
    bool hasWrapped = false;
    while (left > 0 && pieces.size() < mostPieces) {
        auto unit = space.freeUnitFrom(at, grid_, true);
        if (!unit && !hasWrapped) {
            hasWrapped = true;
            unit = space.freeUnitFrom(0, grid_, true);
        }
        if (!unit || (hasWrapped && *unit >= guess.start))
            break;
        const auto end = space.endOfRun(*unit, grid_, true);
        auto room = end - *unit;
        if (room < left)
            room -= room % grid_.unit;
        const auto length = std::min(left, room);
        pieces.push_back({ *unit, *unit + length });
        left -= length;
        at = *unit + std::max(length, grid_.unit);
    }
    return pieces;
}

std::vector<ByteRange> DeletedFiles::contiguous(const Guess& guess) const
{
    const auto length = std::min(
        guess.node->size, cache_.source().size() - std::min(cache_.source().size(), guess.start));
    return { { guess.start, guess.start + length } };
}

void DeletedFiles::place(
    Guess& guess, const std::vector<ByteRange>& pieces, Recoverability chance, bool isCertain)
{
    guess.isSettled = true;
    auto& node = *guess.node;
    const bool isMoved = pieces.size() > 1;
    if (isMoved) {
        ExtentList extents;
        extents.reserve(pieces.size());
        for (const auto& [start, end] : pieces)
            extents.push_back({ .offset = start, .length = end - start });
        node.data = std::move(extents);
        const auto words = "Samlet af " + std::to_string(pieces.size()) + " stykker";
        node.note = isCertain ? words : words + "; overgangen er usikker";
    }
    if (isMoved || chance == Recoverability::good)
        node.recoverability = chance;
    for (const auto& piece : pieces) {
        if (isCertain)
            space_.hold(piece);
        else
            claimed_.add(piece.start, piece.end);
    }
}

} // namespace Fragments
