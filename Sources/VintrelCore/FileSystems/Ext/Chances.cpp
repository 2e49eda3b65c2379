#include "VintrelCore/FileSystems/Ext/Chances.h"

#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/DeletedClaims.h"

#include <algorithm>
#include <tuple>

namespace {

/// Blocks of an ended file that lie in one group.
struct Piece {
    ExtEntry::Index file = 0;
    std::uint64_t first = 0, count = 0;
    std::uint32_t group = 0;
    ExtSequence died = 0;
    bool isStart = false;
};

/// Deleted files that had a block one after another, as far as they are judged. More are made up.
constexpr std::uint64_t claimsOfBlock = 64;
constexpr std::uint64_t leastBlocks = 1'048'576;

class Judge {
public:
    Judge(ExtContext& context, ExtFiles& files)
        : context_(context)
        , files_(files)
        , uses_(files.entries.size() - files.livingCount)
        , blocksLeft_(context.geometry().blockCount * claimsOfBlock + leastBlocks)
    {
    }

    void run();

private:
    void addPieces(ExtEntry::Index file);
    void judgeGroup(std::span<const Piece> pieces);
    bool isHeld(const Piece& piece);
    bool isWrittenSince(const Piece& piece, std::uint64_t block) const;
    void judgeClaims();

    ExtContext& context_;
    ExtFiles& files_;
    std::vector<ClusterUse> uses_;
    std::vector<Piece> pieces_;
    std::uint64_t blocksLeft_;
};

void Judge::run()
{
    for (auto file = files_.livingCount; file < files_.entries.size(); ++file)
        addPieces(file);
    std::ranges::sort(pieces_, [](const Piece& one, const Piece& other) {
        return std::tuple(one.group, other.died) < std::tuple(other.group, one.died);
    });
    for (auto first = pieces_.begin(); first != pieces_.end();) {
        const auto last = std::find_if(
            first, pieces_.end(), [&](const Piece& piece) { return piece.group != first->group; });
        judgeGroup({ first, last });
        first = last;
    }
    for (auto file = files_.livingCount; file < files_.entries.size(); ++file) {
        auto& entry = files_.entries[file];
        auto doubts = entry.doubts;
        doubts.add(doubtsOf(uses_[file - files_.livingCount], extReuse));
        if (!entry.node->isDirectory())
            judge(*entry.node, doubts);
    }
    judgeClaims();
}

void Judge::addPieces(ExtEntry::Index file)
{
    const auto& geometry = context_.geometry();
    const auto& entry = files_.entries[file];
    const auto* const extents = extentsOf(entry.node->data);
    bool isStart = true;
    for (const auto& extent : extents != nullptr ? *extents : ExtentList()) {
        if (!extent.offset || *extent.offset < geometry.base)
            continue;
        auto block = (*extent.offset - geometry.base) / geometry.blockSize;
        auto left = unitsFor(extent.length, geometry.blockSize);
        while (left > 0) {
            const auto group = geometry.groupOf(block);
            const auto inGroup = geometry.firstBlockOf(group + 1) - block;
            const auto count = std::min(left, inGroup);
            pieces_.push_back({ file, block, count, group, entry.diedAtLatest, isStart });
            isStart = false;
            block += count;
            left -= count;
        }
    }
}

/// Whether all blocks are in use now.
bool Judge::isHeld(const Piece& piece)
{
    if (piece.count > blocksLeft_)
        return false;
    blocksLeft_ -= piece.count;
    for (std::uint64_t index = 0; index < piece.count; ++index)
        if (!context_.allocation().isInUse(piece.first + index))
            return false;
    return true;
}

/// What the journal has written to a block since the file ended.
bool Judge::isWrittenSince(const Piece& piece, std::uint64_t block) const
{
    const auto* const journal = context_.journal();
    const auto copies
        = journal != nullptr ? journal->copiesOf(block) : std::span<const ExtJournalCopy>();
    return !copies.empty() && copies.back().sequence > piece.died;
}

/// The pieces come with those that ended last in front, so that each state of the bitmap is added
/// once to what was in use since.
void Judge::judgeGroup(std::span<const Piece> pieces)
{
    auto& allocation = context_.allocation();
    const auto* const journal = context_.journal();
    const auto group = pieces.front().group;
    auto used = allocation.bitmapOf(group);
    auto copies = journal != nullptr && group < context_.groups().count()
        ? journal->copiesOf(context_.groups()[group].blockBitmap)
        : std::span<const ExtJournalCopy>();
    for (const auto& piece : pieces) {
        for (; !copies.empty() && copies.back().sequence > piece.died;
             copies = copies.first(copies.size() - 1)) {
            const auto old = journal->content(copies.back());
            used.resize(std::max(used.size(), old.size()));
            for (std::size_t index = 0; index < old.size(); ++index)
                used[index] |= old[index];
        }
        auto& use = uses_[piece.file - files_.livingCount];
        use.checked += piece.count;
        if (files_.entries[piece.file].isUnfreed && isHeld(piece))
            continue;
        use.isUnknown = use.isUnknown || used.empty()
            || (journal != nullptr && !journal->isCompleteSince(piece.died));
        if (piece.count > blocksLeft_) {
            use.isUnknown = true;
            continue;
        }
        blocksLeft_ -= piece.count;
        for (std::uint64_t index = 0; index < piece.count; ++index) {
            const auto block = piece.first + index;
            const auto bit = allocation.bitOf(block);
            const bool isForeign = (bit / 8 < used.size() && (used[bit / 8] >> (bit % 8) & 1) != 0)
                || isWrittenSince(piece, block);
            use.foreign += isForeign ? 1 : 0;
            use.isFirstForeign = use.isFirstForeign || (isForeign && piece.isStart && index == 0);
        }
    }
}

/// Files that ended in the same transaction had their blocks one after another too, and nothing
/// says in which order.
void Judge::judgeClaims()
{
    const auto& geometry = context_.geometry();
    DeletedClaims claims(DeletedClaims::SameTime::undecided);
    for (const auto& piece : pieces_)
        claims.add({ .file = files_.entries[piece.file].node.get(),
            .range
            = { geometry.offsetOf(piece.first), geometry.offsetOf(piece.first + piece.count) },
            .time = piece.died,
            .isStart = piece.isStart });
    claims.forEachDoubted([](FileNode& node, Doubts doubts) { judgeFurther(node, doubts); });
}

} // namespace

void ExtChances::judge(ExtContext& context, ExtFiles& files) { Judge(context, files).run(); }
