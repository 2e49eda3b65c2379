#include "VintrelCore/FileSystems/Ext/LooseLists.h"

#include "VintrelCore/Foundation/RangeSet.h"
#include "VintrelCore/Model/DeepScanResult.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

using namespace ExtFormat;

namespace {

constexpr auto directBlocks = ExtListed::directBlocks;
constexpr int topLevel = 2; ///< lists of lists of lists

/// Of all lists of a volume, some 100 MiB of memory. Disks in use have a hundredth of it.
constexpr std::size_t maxRuns = 4'194'304;

/// A list that belongs to nothing that exists.
struct LooseList {
    std::vector<ExtRun> runs; ///< of what it names, counted from its own first entry
    int level = 0;            ///< 0: names blocks of a file; otherwise lists of the level below
    bool isNamed = false;     ///< by another list

    std::uint64_t count() const { return runs.back().end(); }
    std::uint64_t first() const { return runs.front().physical; }
};

/// Puts the files of one volume together.
class Search {
public:
    Search(const ExtListed& listed, ExtContext& context);

    void add(std::uint64_t block);
    void findFiles(ExtLooseFiles& files);

private:
    using Lists = std::map<std::uint64_t, LooseList>; // by their blocks

    std::optional<LooseList> decode(ByteView block) const;
    template <class Test> bool areAll(const LooseList& list, Test test);
    void findLevels();
    std::uint64_t firstDataBlockOf(const LooseList& list) const;
    void findFollowers();
    LooseList* nextList(int level, std::uint64_t block);
    void append(ExtMapping& mapping, const LooseList& list) const;
    ExtMapping mappingOf(std::uint64_t block, const LooseList& list);

    ExtContext& context_;
    const ExtGeometry& geometry_;
    Lists lists_;
    std::size_t runsLeft_ = maxRuns;
    std::multimap<std::pair<int, std::uint64_t>, std::uint64_t> followers_;
    const ExtListed& listed_;
};

Search::Search(const ExtListed& listed, ExtContext& context)
    : context_(context)
    , geometry_(context.geometry())
    , listed_(listed)
{
}

/// Files have no holes, as far as they are found here: nothing follows the first zero.
std::optional<LooseList> Search::decode(ByteView block) const
{
    LooseList list;
    RangeSet named;
    const auto capacity = block.size() / sizeof(LE32);
    for (std::uint64_t index = 0; index < capacity; ++index) {
        const std::uint64_t number = block.u32le(static_cast<std::int64_t>(index * sizeof(LE32)));
        if (number == 0) {
            const auto rest = block.sub(static_cast<std::int64_t>(index * sizeof(LE32)),
                static_cast<std::int64_t>((capacity - index) * sizeof(LE32)));
            return index > 0 && rest.isAllZero() ? std::optional(list) : std::nullopt;
        }
        if (!geometry_.isBlock(number) || named.contains(number))
            return std::nullopt;
        named.add(number, number + 1);
        if (index > 0 && number == list.runs.back().physical + list.runs.back().count)
            ++list.runs.back().count;
        else
            list.runs.push_back({ index, number, 1, true });
    }
    return list;
}

void Search::add(std::uint64_t block)
{
    auto list = decode(context_.blocks().read(block));
    if (!list || list->runs.size() > runsLeft_)
        return;
    runsLeft_ -= list->runs.size();
    lists_.emplace(block, std::move(*list));
}

/// Calls `test(found)` for all that a list names until it is false, with the place among the lists
/// where each was found or not. Returns whether it never was.
template <class Test> bool Search::areAll(const LooseList& list, Test test)
{
    for (const auto& run : list.runs)
        for (std::uint64_t index = 0; index < run.count; ++index)
            if (!test(lists_.find(run.physical + index)))
                return false;
    return true;
}

/// Lists of lists are those that name nothing else, and nothing that another one has named.
void Search::findLevels()
{
    const auto isUnnamed
        = [&](auto found) { return found != lists_.end() && !found->second.isNamed; };
    const auto name = [](auto found) { return found->second.isNamed = true; };
    for (auto& [block, list] : lists_)
        if (areAll(list, isUnnamed)) {
            list.level = 1;
            areAll(list, name);
        }
    const auto isOfLists = [](auto found) { return found->second.level > 0; };
    for (auto& [block, list] : lists_)
        if (list.level == 1 && areAll(list, isOfLists))
            list.level = topLevel;
}

std::uint64_t Search::firstDataBlockOf(const LooseList& list) const
{
    const auto* below = &list;
    for (int level = list.level; level > 0; --level)
        below = &lists_.at(below->first());
    return below->first();
}

/// The lists of each level by the block that may come before them in a file: the one before their
/// first data block, or before themselves.
void Search::findFollowers()
{
    for (const auto& [block, list] : lists_)
        if (list.level > 0 && !list.isNamed) {
            followers_.emplace(std::pair(list.level, firstDataBlockOf(list) - 1), block);
            if (firstDataBlockOf(list) != block)
                followers_.emplace(std::pair(list.level, block - 1), block);
        }
}

/// The one list of a level with which a file can go on whose last block this is; none where there
/// are several.
LooseList* Search::nextList(int level, std::uint64_t block)
{
    const auto [first, last] = followers_.equal_range({ level, block });
    if (first == last || std::next(first) != last)
        return nullptr;
    auto& list = lists_.at(first->second);
    return list.isNamed ? nullptr : &list;
}

/// Adds what a list and those below it name to the end of a file.
void Search::append(ExtMapping& mapping, const LooseList& list) const
{
    std::vector<const LooseList*> open { &list };
    while (!open.empty()) {
        const auto& next = *open.back();
        open.pop_back();
        for (const auto& run : next.runs) {
            if (next.level > 0)
                continue;
            const auto logical = mapping.runs.back().end();
            mapping.runs.push_back({ logical, run.physical, run.count, true });
        }
        for (auto run = next.runs.rbegin(); next.level > 0 && run != next.runs.rend(); ++run)
            for (auto index = run->count; index > 0; --index)
                open.push_back(&lists_.at(run->physical + index - 1));
    }
}

/// The file whose first list this is. Systems that take a block at a time put the list between the
/// twelfth and the thirteenth block; others put those side by side, and the list elsewhere.
ExtMapping Search::mappingOf(std::uint64_t block, const LooseList& list)
{
    ExtMapping mapping;
    const auto behindDirect = list.first() == block + 1 ? block : list.first();
    if (behindDirect <= directBlocks)
        return mapping;
    mapping.runs.push_back({ 0, behindDirect - directBlocks, directBlocks, true });
    append(mapping, list);
    const auto capacity = geometry_.blockSize / sizeof(LE32);
    bool isFull = list.count() == capacity;
    for (int level = 1; isFull && level <= topLevel; ++level) {
        const auto& last = mapping.runs.back();
        auto* const next = nextList(level, last.physical + last.count - 1);
        mapping.isWhole = next != nullptr;
        if (next == nullptr)
            break;
        next->isNamed = true;
        append(mapping, *next);
        isFull = next->count() == capacity;
    }
    return mapping;
}

void Search::findFiles(ExtLooseFiles& files)
{
    findLevels();
    findFollowers();
    for (auto& [block, list] : lists_) {
        const bool isFirst = list.level == 0 && !list.isNamed;
        if (!isFirst || listed_.hasBehindDirect(geometry_.offsetOf(list.first())))
            continue;
        const auto mapping = mappingOf(block, list);
        if (!mapping.runs.empty())
            files.add(block, mapping, ExtLooseFiles::Beginning::guessed);
    }
}

} // namespace

namespace ExtLooseLists {

bool looksLikeList(ByteView sector)
{
    const auto first = sector.u32le(0);
    const auto second = sector.u32le(sizeof(LE32));
    if (first == 0)
        return false;
    return second == first + 1
        || sector.sub(sizeof(LE32), static_cast<std::int64_t>(sector.size() - sizeof(LE32)))
               .isAllZero();
}

void add(
    ExtContext& context, const ExtListed& listed, const DeepScanResult& finds, ExtLooseFiles& files)
{
    Search search(listed, context);
    for (const auto block : freeBlocksAt(context, finds.extBlockLists))
        search.add(block);
    search.findFiles(files);
}

} // namespace ExtLooseLists
