#include "VintrelCore/FileSystems/Clusters/FormerFiles.h"

#include "VintrelCore/Model/Chance.h"
#include "VintrelCore/Model/FileNode.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <set>
#include <span>
#include <tuple>

namespace {

/// Clusters of one file that are asked who has them now.
constexpr std::uint64_t maxChecks = 1'048'576;

/// Calls `visit(first, count)` for the clusters of a file, piece by piece.
template <class Visit> void forEachPiece(const FileNode& node, const ClusterHeap& heap, Visit visit)
{
    const auto* extents = std::get_if<ExtentList>(&node.data);
    if (extents == nullptr)
        return;
    for (const auto& extent : *extents)
        if (extent.offset && extent.length > 0 && heap.holds(*extent.offset))
            visit(heap.clusterAt(*extent.offset), heap.clustersFor(extent.length));
}

void apply(const FormerFile& file, Doubts doubts)
{
    if (doubts.empty())
        return;
    if (file.isLevelFixed)
        noteDoubts(*file.node, doubts);
    else
        judgeFurther(*file.node, doubts);
}

/// What files that exist and directories leave of a former file.
Doubts doubtsByClaims(const FileNode& node, const ClusterClaims& claims, const ClusterHeap& heap)
{
    ClusterUse use;
    forEachPiece(node, heap, [&](std::uint32_t first, std::uint64_t clusters) {
        const auto count = std::min(clusters, maxChecks - use.checked);
        if (use.checked == 0)
            use.isFirstForeign = claims.isInUse(first, 1);
        use.foreign += claims.isInUse(first, count) ? 1 : 0;
        use.checked += count;
    });
    return doubtsOf(use, fatReuse);
}

/// When clusters were claimed, for comparison; the larger one has overwritten the other.
using Age = std::uint64_t;
constexpr Age unknownAge = std::numeric_limits<Age>::max();

/// What one file says of clusters that follow each other.
struct Claim {
    std::uint64_t first;
    std::uint64_t end;
    Age age;
    std::uint64_t size; ///< the file's, in bytes
    std::size_t file;   ///< its index
    bool isFirst;       ///< the file begins here
    bool isCertain;     ///< the file surely lay here

    auto place() const { return std::tie(first, end, age, size); }
};

/// The latest claims on the clusters between two borders.
struct Segment {
    Age latest = 0;
    Age latestCertain = 0;
    bool isShared = false; ///< there is more than one
    bool isTied = false;   ///< two are the latest
};

/// The maximum of a row of ages between any two places.
class AgeMaximum {
public:
    explicit AgeMaximum(const std::vector<Segment>& segments)
        : size_(segments.size())
        , tree_(2 * segments.size())
    {
        std::ranges::transform(segments, tree_.begin() + static_cast<std::ptrdiff_t>(size_),
            [](const Segment& segment) { return segment.latest; });
        for (std::size_t i = size_; i-- > 1;)
            tree_[i] = std::max(tree_[2 * i], tree_[2 * i + 1]);
    }

    Age between(std::size_t from, std::size_t to) const
    {
        Age largest = 0;
        for (from += size_, to += size_; from < to; from /= 2, to /= 2) {
            if (from % 2 != 0)
                largest = std::max(largest, tree_[from++]);
            if (to % 2 != 0)
                largest = std::max(largest, tree_[--to]);
        }
        return largest;
    }

private:
    std::size_t size_;
    std::vector<Age> tree_; // the row is its second half; above each pair stands the larger one
};

/// Finds out which former files say that they lay in the same clusters, and which of them lost
/// these.
class Contest {
public:
    Contest(const std::vector<FormerFile>& files, const ClusterHeap& heap, bool isRebuilt)
        : files_(files)
        , isRebuilt_(isRebuilt)
    {
        for (std::size_t file = 0; file < files.size(); ++file)
            collect(file, heap);
        std::ranges::sort(
            claims_, [](const Claim& a, const Claim& b) { return a.place() < b.place(); });
        for (const auto& claim : claims_) {
            borders_.push_back(claim.first);
            borders_.push_back(claim.end);
        }
        std::ranges::sort(borders_);
        borders_.erase(std::unique(borders_.begin(), borders_.end()), borders_.end());
        sweep();
    }

    /// The doubts of each file, by its index.
    std::vector<Doubts> doubts() const;

private:
    void collect(std::size_t index, const ClusterHeap& heap);
    Age ageOf(const FormerFile& file, bool isKnownPlace) const;
    void sweep();
    Doubts doubtsOfClaim(const Claim& claim, const AgeMaximum& latest) const;

    std::size_t segmentAt(std::uint64_t cluster) const
    {
        return static_cast<std::size_t>(
            std::ranges::lower_bound(borders_, cluster) - borders_.begin());
    }

    const std::vector<FormerFile>& files_;
    bool isRebuilt_;
    std::vector<Claim> claims_;          // by their places
    std::vector<std::uint64_t> borders_; // of the segments, ascending
    std::vector<Segment> segments_;      // each begins at the border of its index
    std::vector<std::size_t> shared_;    // how many before each segment are shared
    std::vector<std::size_t> tied_;      // the same of those that are tied
};

void Contest::collect(std::size_t index, const ClusterHeap& heap)
{
    const auto& file = files_[index];
    bool isFirst = true;
    const auto add = [&](std::uint64_t first, std::uint64_t count, bool isKnownPlace) {
        // In a volume without tables the files that existed last have their clusters before
        // those that were deleted.
        const bool isCertain = file.written && (isKnownPlace || (isRebuilt_ && file.isLost));
        claims_.push_back({ first, first + count, ageOf(file, isKnownPlace), file.node->size, index,
            isFirst, isCertain });
        isFirst = false;
    };
    forEachPiece(*file.node, heap, [&](std::uint32_t first, std::uint64_t count) {
        const bool isGuess = !file.isCertain && count > 1;
        add(first, isGuess ? 1 : count, file.isCertain || isFirst);
        if (isGuess)
            add(std::uint64_t { first } + 1, count - 1, false);
    });
}

Age Contest::ageOf(const FormerFile& file, bool isKnownPlace) const
{
    constexpr Age lost = Age { 1 } << 62; // later than every date
    if (!file.written)
        return unknownAge;
    const auto date = std::max<std::int64_t>(0, file.written->time_since_epoch().count());
    const auto age = std::min(static_cast<Age>(date), lost - 1);
    if (!isRebuilt_ || !file.isLost)
        return age;
    return age + (isKnownPlace ? 2 * lost : lost); // where a place is guessed, the guess is wrong
}

void Contest::sweep()
{
    std::multiset<Age> all;
    std::multiset<Age> certain;
    const auto byEnd
        = [&](std::size_t a, std::size_t b) { return claims_[a].end < claims_[b].end; };
    std::vector<std::size_t> ending; // claims without their copies
    for (std::size_t i = 0; i < claims_.size(); ++i)
        if (i == 0 || claims_[i].place() != claims_[i - 1].place())
            ending.push_back(i);
    const auto beginning = ending;
    std::ranges::sort(ending, byEnd);
    auto next = beginning.begin();
    auto last = ending.begin();
    segments_.reserve(borders_.size());
    shared_.reserve(borders_.size() + 1);
    tied_.reserve(borders_.size() + 1);
    shared_.push_back(0);
    tied_.push_back(0);
    for (const auto border : borders_) {
        for (; last != ending.end() && claims_[*last].end == border; ++last) {
            const auto& claim = claims_[*last];
            all.erase(all.find(claim.age));
            if (claim.isCertain)
                certain.erase(certain.find(claim.age));
        }
        for (; next != beginning.end() && claims_[*next].first == border; ++next) {
            const auto& claim = claims_[*next];
            all.insert(claim.age);
            if (claim.isCertain)
                certain.insert(claim.age);
        }
        Segment segment;
        if (!all.empty())
            segment.latest = *all.rbegin();
        if (!certain.empty())
            segment.latestCertain = *certain.rbegin();
        segment.isShared = all.size() > 1;
        segment.isTied = segment.isShared && *std::next(all.rbegin()) == segment.latest;
        segments_.push_back(segment);
        shared_.push_back(shared_.back() + (segment.isShared ? 1 : 0));
        tied_.push_back(tied_.back() + (segment.isTied ? 1 : 0));
    }
}

Doubts Contest::doubtsOfClaim(const Claim& claim, const AgeMaximum& latest) const
{
    const auto from = segmentAt(claim.first);
    const auto to = segmentAt(claim.end);
    if (shared_[from] == shared_[to])
        return {};
    if (claim.isFirst && segments_[from].latestCertain > claim.age)
        return Doubt::reusedFirstByDeleted;
    const bool isLatest
        = claim.isCertain && latest.between(from, to) == claim.age && tied_[from] == tied_[to];
    if (isLatest && !files_[claim.file].isLevelFixed)
        return {};
    return Doubt::partlyReusedByDeleted;
}

std::vector<Doubts> Contest::doubts() const
{
    const AgeMaximum latest(segments_);
    std::vector<Doubts> doubts(files_.size());
    for (const auto& claim : claims_)
        doubts[claim.file].add(doubtsOfClaim(claim, latest));
    return doubts;
}

} // namespace

void judgeFormerFiles(const ClusterClaims& claims, const ClusterHeap& heap, bool isRebuilt)
{
    const auto contested = Contest(claims.formerFiles, heap, isRebuilt).doubts();
    for (std::size_t i = 0; i < contested.size(); ++i) {
        const auto& file = claims.formerFiles[i];
        apply(file, doubtsByClaims(*file.node, claims, heap));
        if (file.node->recoverability == Recoverability::poor)
            continue; // its note says why, and that is worse
        if (contested[i].has(Doubt::reusedFirstByDeleted))
            apply(file, Doubt::reusedFirstByDeleted);
        else
            apply(file, contested[i]);
    }
}
