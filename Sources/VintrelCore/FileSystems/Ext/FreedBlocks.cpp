#include "VintrelCore/FileSystems/Ext/FreedBlocks.h"

#include <algorithm>
#include <map>

using namespace ExtFormat;

namespace {

class Assignment {
public:
    Assignment(const ExtContext& context, const ExtContent& content, ExtFiles& files)
        : context_(context)
        , journal_(*context.journal())
        , content_(content)
        , files_(files)
    {
    }

    void run();

private:
    bool isWanted(const ExtEntry& entry) const;
    void indexDeaths();
    void indexBitmaps();
    bool isAloneIn(ExtSequence after, ExtSequence sequence) const;
    void addFreed(std::uint32_t group, const ExtJournalCopy& before, const ExtJournalCopy& copy,
        ExtMapping& mapping) const;
    void addBlocks(ExtMapping& mapping, std::uint64_t block) const;
    void assign(ExtEntry& entry);

    const ExtContext& context_;
    const ExtJournal& journal_;
    const ExtContent& content_;
    ExtFiles& files_;
    std::multimap<ExtSequence, std::uint32_t>
        bitmaps_;                               ///< groups, by transactions with their state
    std::map<ExtSequence, std::size_t> deaths_; ///< how many files ended in a transaction
};

/// Whether nothing says where the file lay, and the journal has the whole transaction in which it
/// was deleted.
bool Assignment::isWanted(const ExtEntry& entry) const
{
    return entry.firstDead != 0 && entry.firstDead != ExtLife::now && entry.kind == fileMode
        && entry.node->size == 0 && !entry.isNamed() && entry.deleted != 0
        && journal_.reachesBackTo(entry.deleted);
}

void Assignment::indexDeaths()
{
    for (auto file = files_.livingCount; file < files_.entries.size(); ++file) {
        const auto& entry = files_.entries[file];
        ++deaths_[entry.firstDead != 0 ? entry.firstDead : entry.died];
    }
}

void Assignment::indexBitmaps()
{
    for (std::uint32_t group = 0; group < context_.groups().count(); ++group)
        for (const auto& copy : journal_.copiesOf(context_.groups()[group].blockBitmap))
            bitmaps_.emplace(copy.sequence, group);
}

/// Whether one file alone ended in the transactions behind `after` up to this one.
bool Assignment::isAloneIn(ExtSequence after, ExtSequence sequence) const
{
    std::size_t count = 0;
    for (auto death = deaths_.upper_bound(after);
         death != deaths_.end() && death->first <= sequence; ++death)
        count += death->second;
    return count == 1;
}

void Assignment::addBlocks(ExtMapping& mapping, std::uint64_t block) const
{
    const auto count = context_.geometry().clusterBlocks;
    if (!mapping.runs.empty()) {
        auto& last = mapping.runs.back();
        if (last.physical + last.count == block) {
            last.count += count;
            return;
        }
    }
    const auto logical = mapping.runs.empty() ? 0 : mapping.runs.back().end();
    mapping.runs.push_back({ logical, block, count, true });
}

void Assignment::addFreed(std::uint32_t group, const ExtJournalCopy& before,
    const ExtJournalCopy& copy, ExtMapping& mapping) const
{
    const auto& geometry = context_.geometry();
    const auto old = journal_.content(before);
    const auto now = journal_.content(copy);
    for (std::uint64_t bit = 0; bit / 8 < std::min(old.size(), now.size()); ++bit) {
        const auto freed = old[bit / 8] & ~now[bit / 8];
        const auto block = geometry.firstBlockOf(group) + bit * geometry.clusterBlocks;
        if ((freed >> (bit % 8) & 1) != 0 && geometry.isBlock(block)
            && geometry.blockCount - block >= geometry.clusterBlocks)
            addBlocks(mapping, block);
    }
}

void Assignment::assign(ExtEntry& entry)
{
    ExtMapping mapping;
    const auto [first, last] = bitmaps_.equal_range(entry.firstDead);
    for (auto found = first; found != last; ++found) {
        const auto copies = journal_.copiesOf(context_.groups()[found->second].blockBitmap);
        const auto copy = std::ranges::find(copies, entry.firstDead, &ExtJournalCopy::sequence);
        if (copy == copies.begin() || copy == copies.end()
            || !isAloneIn(std::prev(copy)->sequence, entry.firstDead))
            return;
        addFreed(found->second, *std::prev(copy), *copy, mapping);
    }
    if (mapping.runs.empty())
        return;
    content_.takeRuns(*entry.node, mapping);
    entry.doubts.add(Doubt::guessedBlocks);
    entry.doubts.add(Doubt::unknownSize);
}

void Assignment::run()
{
    indexDeaths();
    indexBitmaps();
    for (auto file = files_.livingCount; file < files_.entries.size(); ++file)
        if (isWanted(files_.entries[file]))
            assign(files_.entries[file]);
}

} // namespace

void ExtFreedBlocks::assign(const ExtContext& context, const ExtContent& content, ExtFiles& files)
{
    if (context.journal() != nullptr)
        Assignment(context, content, files).run();
}
