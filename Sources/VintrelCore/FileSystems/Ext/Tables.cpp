#include "VintrelCore/FileSystems/Ext/Files.h"
#include "VintrelCore/FileSystems/Ext/Orphans.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <tuple>

using namespace ExtFormat;

namespace {

constexpr std::uint64_t pieceSize = 1'048'576; ///< of the reading of tables

/// States of one block that are compared. More are only made up: a transaction takes longer than
/// the journal of a disk has room for.
constexpr std::size_t maxStates = 4096;

/// Of an inode without a checksum that may be other bytes.
constexpr std::uint16_t maxBelievedLinks = 4096;
constexpr std::uint64_t maxBelievedSize = std::uint64_t { 1 } << 44;

/// Since 1970; 0 before.
std::uint64_t secondsOf(const Date& date)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date).time_since_epoch().count();
    return static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
}

class Reader {
public:
    Reader(const ExtContext& context, ExtContent& content)
        : context_(context)
        , geometry_(context.geometry())
        , content_(content)
        , orphans_(ExtOrphans::numbers(context))
    {
    }

    void readGroup(std::uint32_t group);
    ExtFiles take();

private:
    void readBlock(std::uint64_t block, ByteView now, std::uint32_t firstNumber, bool isUsed);
    void readSlot(std::uint32_t number, std::span<const ExtSlotState> states);
    void addLiving(const ExtInode& inode, ByteView slot);
    void addEnded(const ExtLife& life, const ExtInode& now);
    bool isUnfreed(const ExtLife& life, const ExtInode& now) const;
    void add(const ExtInode& inode, ByteView slot, ExtContent::Made made, ExtEntry entry);
    ExtSequence endOf(const ExtLife& life, std::uint64_t seconds) const;
    ExtSequence birthOf(const ExtLife& life) const;
    bool isListed(std::uint32_t number) const;
    bool isOurs(const ExtInode& inode) const;

    const ExtContext& context_;
    const ExtGeometry& geometry_;
    ExtContent& content_;
    const std::set<std::uint32_t> orphans_;
    ExtFiles files_;
};

/// The root is listed, and what has no number of the system's own.
bool Reader::isListed(std::uint32_t number) const
{
    const std::uint32_t first = geometry_.superblock.revision == 0
        ? 11
        : std::max<std::uint32_t>(geometry_.superblock.firstInode, 1);
    return number == rootInode || (number >= first && !ExtOrphans::isOrphanFile(geometry_, number));
}

/// Whether an inode is this volume's, and not what another one or a file has left in its place.
bool Reader::isOurs(const ExtInode& inode) const
{
    if (context_.trust() == ExtTrust::full)
        return true;
    if (geometry_.hasChecksums())
        return inode.isSound && inode.mode != 0;
    const bool hasMap = inode.hasExtents()
        ? geometry_.isIncompatible(Feature::extents) && ByteView(inode.map).u16le(0) == extentMagic
        : true;
    return inode.hasKind() && hasMap && inode.links < maxBelievedLinks && inode.changed != 0
        && inode.size < maxBelievedSize && inode.sectors * 512 <= geometry_.volumeSize();
}

void Reader::readGroup(std::uint32_t group)
{
    const auto& place = context_.groups()[group];
    if (place.inodeTable == 0)
        return;
    const auto perBlock = geometry_.inodesPerBlock();
    const auto usedBlocks = context_.trust() == ExtTrust::full
        ? unitsFor(place.usedInodes, perBlock)
        : geometry_.tableBlocks();
    const auto piece = pieceSize / geometry_.blockSize;
    const auto firstNumber = group * geometry_.inodesPerGroup() + 1;
    for (std::uint64_t at = 0; at < geometry_.tableBlocks(); at += piece) {
        const auto count = std::min(piece, geometry_.tableBlocks() - at);
        const auto used = at < usedBlocks ? std::min(count, usedBlocks - at) : 0;
        const auto bytes = used > 0 ? context_.blocks().read(place.inodeTable + at, used) : Bytes();
        for (std::uint64_t index = 0; index < count; ++index)
            readBlock(place.inodeTable + at + index,
                ByteView(bytes).sub(
                    static_cast<std::int64_t>(index * geometry_.blockSize), geometry_.blockSize),
                static_cast<std::uint32_t>(firstNumber + (at + index) * perBlock), index < used);
    }
}

/// A block of a table, with its earlier states. One that is all zeros although the journal knows
/// inodes in it was lost, and what the journal has of it last stands in.
void Reader::readBlock(std::uint64_t block, ByteView now, std::uint32_t firstNumber, bool isUsed)
{
    const auto* const journal = context_.journal();
    const auto copies
        = journal != nullptr ? journal->copiesOf(block) : std::span<const ExtJournalCopy>();
    if (!isUsed && copies.empty())
        return;
    std::vector<std::pair<ExtSequence, Bytes>> old;
    for (const auto& copy : copies.last(std::min(copies.size(), maxStates)))
        if (auto bytes = journal->content(copy); !bytes.empty())
            old.emplace_back(copy.sequence, std::move(bytes));
    if (isUsed || old.empty()) {
        const bool isLost = now.isAllZero() && !old.empty();
        old.emplace_back(
            ExtLife::now, isLost ? old.back().second : Bytes(now.span().begin(), now.span().end()));
    } else {
        old.emplace_back(ExtLife::now, old.back().second);
    }
    std::vector<ExtSlotState> states(old.size());
    for (std::uint32_t index = 0; index < geometry_.inodesPerBlock(); ++index) {
        const auto number = firstNumber + index;
        if (number > geometry_.inodeCount() || !isListed(number))
            continue;
        std::ranges::transform(old, states.begin(), [&](const auto& state) {
            return ExtSlotState { state.first,
                ByteView(state.second)
                    .sub(std::int64_t { index } * geometry_.inodeSize, geometry_.inodeSize) };
        });
        readSlot(number, states);
    }
}

void Reader::readSlot(std::uint32_t number, std::span<const ExtSlotState> states)
{
    const auto& now = states.back().slot;
    if (states.size() == 1 && now.u16le(0) == 0) // its mode: never used
        return;
    const auto inode = ExtInode::decode(geometry_, number, now);
    if (!isOurs(inode) && states.size() == 1)
        return;
    if (inode.isAlive() && isOurs(inode))
        addLiving(inode, now);
    if (states.size() == 1 && inode.isAlive())
        return;
    for (const auto& life : ExtLives::ended(geometry_, number, states))
        if (!inode.isAlive() || !ExtLives::isSameFile(inode, life.inode)) // it is back
            addEnded(life, inode);
}

void Reader::addLiving(const ExtInode& inode, ByteView slot)
{
    auto made = content_.makeLiving(inode, slot);
    if (made.node)
        add(inode, slot, std::move(made), {});
}

/// The end of a file or, where only the dead inode says when that was, the first transaction that
/// was committed in this second or later.
ExtSequence Reader::endOf(const ExtLife& life, std::uint64_t seconds) const
{
    const auto* const journal = context_.journal();
    if (!life.isStateDead || journal == nullptr || life.inode.deleted == 0)
        return std::min(life.died, ExtLife::now - 1);
    return std::min(
        { journal->firstSince(seconds).value_or(ExtLife::now - 1), life.died, ExtLife::now - 1 });
}

/// The beginning of a file or, where only the dead inode says when that was, the first transaction
/// that was committed in this second or later: those before are about others with its number.
ExtSequence Reader::birthOf(const ExtLife& life) const
{
    const auto* const journal = context_.journal();
    if (!life.isStateDead || journal == nullptr || !life.inode.created)
        return life.born;
    return std::max(
        life.born, journal->firstSince(secondsOf(*life.inode.created)).value_or(ExtLife::now - 1));
}

/// Whether the inode of a file still has all that it had when it lost its name.
bool Reader::isUnfreed(const ExtLife& life, const ExtInode& now) const
{
    return orphans_.contains(now.number) && now.links == 0 && ExtLives::isSameFile(life.inode, now)
        && life.inode.size == now.size && life.inode.sectors == now.sectors
        && life.inode.map == now.map;
}

void Reader::addEnded(const ExtLife& life, const ExtInode& now)
{
    auto made = content_.makeDead(life);
    if (!made.node)
        return;
    const auto died = endOf(life, life.inode.deleted);
    const auto diedAtLatest = endOf(life, std::uint64_t { life.inode.deleted } + 1);
    // Whatever had the number in the second of the deletion was this file, unless it began then.
    const bool isOlder = life.inode.created && secondsOf(*life.inode.created) < life.inode.deleted;
    add(life.inode, life.slot, std::move(made),
        { .born = birthOf(life),
            .died = died,
            .diedAtLatest = diedAtLatest,
            .namedBefore = isOlder ? diedAtLatest : died,
            .firstDead = life.isStateDead ? life.died : 0,
            .isUnfreed = isUnfreed(life, now) });
}

void Reader::add(const ExtInode& inode, ByteView slot, ExtContent::Made made, ExtEntry entry)
{
    if (inode.isDirectory()) {
        const auto isInline = inode.isInline();
        files_.folders.push_back({ files_.entries.size(), std::move(made.runs),
            isInline ? Bytes(slot.span().begin(), slot.span().end()) : Bytes() });
    }
    entry.number = inode.number;
    entry.generation = inode.generation;
    entry.deleted = inode.deleted;
    entry.kind = inode.kind();
    entry.links = inode.links;
    entry.doubts = made.doubts;
    entry.node = std::move(made.node);
    files_.entries.push_back(std::move(entry));
}

/// Sorts what was read, so that entries are found by their numbers.
ExtFiles Reader::take()
{
    auto& entries = files_.entries;
    std::vector<ExtEntry::Index> order(entries.size());
    for (ExtEntry::Index index = 0; index < order.size(); ++index)
        order[index] = index;
    std::ranges::sort(order, {}, [&](ExtEntry::Index index) {
        const auto& entry = entries[index];
        return std::tuple(!entry.isAlive(), entry.number, entry.died, index);
    });
    std::vector<ExtEntry> sorted;
    std::vector<ExtEntry::Index> places(entries.size());
    sorted.reserve(entries.size());
    for (const auto index : order) {
        places[index] = sorted.size();
        files_.livingCount += entries[index].isAlive() ? 1 : 0;
        sorted.push_back(std::move(entries[index]));
    }
    entries = std::move(sorted);
    for (auto& folder : files_.folders)
        folder.entry = places[folder.entry];
    std::ranges::stable_sort(files_.folders, {}, [](const ExtFolder& folder) {
        return folder.runs.empty() ? 0 : folder.runs.front().physical;
    });
    return std::move(files_);
}

} // namespace

ExtEntry* ExtFiles::findLiving(std::uint32_t number)
{
    const auto end = entries.begin() + static_cast<std::ptrdiff_t>(livingCount);
    const auto found = std::lower_bound(entries.begin(), end, number,
        [](const ExtEntry& entry, std::uint32_t wanted) { return entry.number < wanted; });
    return found != end && found->number == number ? &*found : nullptr;
}

ExtEntry* ExtFiles::findEnded(std::uint32_t number, ExtSequence sequence)
{
    const auto first = entries.begin() + static_cast<std::ptrdiff_t>(livingCount);
    auto found = std::lower_bound(first, entries.end(), number,
        [](const ExtEntry& entry, std::uint32_t wanted) { return entry.number < wanted; });
    for (; found != entries.end() && found->number == number; ++found)
        if (found->born <= sequence && sequence < found->namedBefore)
            return &*found;
    return nullptr;
}

ExtEntry* ExtFiles::findLastEnded(std::uint32_t number, ExtSequence sequence)
{
    const auto first = entries.begin() + static_cast<std::ptrdiff_t>(livingCount);
    auto next = std::lower_bound(first, entries.end(), number,
        [](const ExtEntry& entry, std::uint32_t wanted) { return entry.number < wanted; });
    ExtEntry* last = nullptr;
    for (; next != entries.end() && next->number == number && next->died <= sequence; ++next)
        last = &*next;
    return last;
}

ExtFiles ExtTables::read(const ExtContext& context, ExtContent& content, WorkProgress* progress)
{
    Reader reader(context, content);
    for (std::uint32_t group = 0; group < context.groups().count(); ++group) {
        if (isCancelled(progress))
            break;
        report(progress, static_cast<double>(group) / context.groups().count(),
            "Læser inodetabeller …");
        reader.readGroup(group);
    }
    return reader.take();
}
