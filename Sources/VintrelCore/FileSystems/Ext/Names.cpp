#include "VintrelCore/FileSystems/Ext/Names.h"

#include <algorithm>

using namespace ExtFormat;

namespace {

constexpr std::uint64_t pieceBlocks = 64; ///< read at once

/// A file has no more names (EXT4_LINK_MAX in "Index Nodes").
constexpr std::size_t maxHardLinksPerEntry = 65'000;

/// "Directory Entries", file_type.
bool fitsKind(std::uint8_t type, std::uint16_t kind)
{
    constexpr std::uint8_t unknown = 0, file = 1, directory = 2, link = 7;
    switch (type) {
    case unknown:
        return true;
    case file:
        return kind == fileMode;
    case directory:
        return kind == directoryMode;
    case link:
        return kind == linkMode;
    default:
        return false;
    }
}

} // namespace

void ExtNames::read(WorkProgress* progress)
{
    // What exists first: the folders of now are the ones whose names count.
    for (const bool isAlive : { true, false }) {
        if (!isAlive)
            takeFastCommits();
        for (std::size_t index = 0; index < files_.folders.size(); ++index) {
            const auto& folder = files_.folders[index];
            if (isCancelled(progress))
                return;
            if (index % 1024 == 0)
                report(progress,
                    static_cast<double>(index) / static_cast<double>(files_.folders.size()),
                    "Læser mapper …");
            if (files_.entries[folder.entry].isAlive() == isAlive)
                readFolder(folder);
        }
    }
}

/// The names that folders got after the last transaction.
void ExtNames::takeFastCommits()
{
    for (const auto& [name, isThere] : context_.fastCommits().names) {
        auto* const file = isThere ? files_.findLiving(name.number) : nullptr;
        const auto* const folder = files_.findLiving(name.folder);
        if (file != nullptr && folder != nullptr && folder->kind == directoryMode)
            nameLiving(*file, { .inode = name.number, .name = name.name },
                { static_cast<ExtEntry::Index>(folder - files_.entries.data()), ExtLife::now, true,
                    true });
    }
}

void ExtNames::readFolder(const ExtFolder& folder)
{
    if (!folder.slot.empty())
        readInline(folder);
    // In a sound volume each block belongs to one folder; states that have ended name some again.
    const auto most = context_.geometry().blockCount * 2;
    for (const auto& run : folder.runs) {
        if (blocksRead_ > most)
            return;
        if (run.isWritten)
            readRun(folder, run);
    }
}

/// "Inline Directories": the number of the folder above, and then entries without "." and "..".
void ExtNames::readInline(const ExtFolder& folder)
{
    const auto& owner = files_.entries[folder.entry];
    auto inode = ExtInode::decode(context_.geometry(), owner.number, folder.slot);
    inode.size = folder.slot.size();
    const auto content = ExtInodes::inlineContent(inode, folder.slot);
    const ByteView bytes(content);
    constexpr std::int64_t parentSize = 4;
    constexpr auto mapSize = static_cast<std::int64_t>(sizeof(InodeBlocks));
    const Place place { folder.entry, owner.isAlive() ? ExtLife::now : owner.died - 1,
        owner.isAlive(), !owner.isAlive() };
    readEntries(bytes.sub(parentSize, mapSize - parentSize), place);
    const auto rest = bytes.sub(mapSize, static_cast<std::int64_t>(bytes.size()));
    if (!rest.isAllZero())
        readEntries(rest, place);
    noteParent(folder, bytes.u32le(0));
}

void ExtNames::readRun(const ExtFolder& folder, const ExtRun& run)
{
    const auto& geometry = context_.geometry();
    for (std::uint64_t done = 0; done < run.count; done += pieceBlocks) {
        const auto count = std::min(pieceBlocks, run.count - done);
        const auto bytes = context_.blocks().read(run.physical + done, count);
        blocksRead_ += count;
        for (std::uint64_t index = 0; index < count; ++index) {
            readNow(folder, run.physical + done + index,
                ByteView(bytes).sub(
                    static_cast<std::int64_t>(index * geometry.blockSize), geometry.blockSize));
            readOld(folder, run.physical + done + index);
        }
    }
}

void ExtNames::readNow(const ExtFolder& folder, std::uint64_t block, ByteView bytes)
{
    const auto& owner = files_.entries[folder.entry];
    const auto* const journal = context_.journal();
    Bytes healed;
    if (owner.isAlive() && journal != nullptr && bytes.isAllZero())
        if (const auto copies = journal->copiesOf(block); !copies.empty()) {
            healed = journal->content(copies.back());
            bytes = healed;
        }
    if (!owner.isAlive()) {
        if (!isOfEnded(owner, bytes))
            return;
        readEntries(bytes, { folder.entry, owner.died, false, true });
    } else if (!isOfLiving(owner, bytes)
        || !readEntries(bytes, { folder.entry, ExtLife::now, true, true })) {
        ++damagedCount_;
    }
    if (const auto self = ExtDirectory::selfIn(bytes); self == owner.number)
        noteParent(folder, ExtDirectory::parentIn(bytes));
}

/// Whether a block is one of a folder that exists, of which another volume may have taken it.
bool ExtNames::isOfLiving(const ExtEntry& folder, ByteView block) const
{
    return context_.trust() == ExtTrust::full || isOfEnded(folder, block);
}

/// Whether a block still has what it had when it was a block of the folder.
bool ExtNames::isOfEnded(const ExtEntry& folder, ByteView block) const
{
    const auto& geometry = context_.geometry();
    if (ExtDirectory::fits(geometry, block, folder.number, folder.generation))
        return true;
    if (geometry.hasChecksums())
        return ExtDirectory::selfIn(block) == folder.number;
    const auto self = ExtDirectory::selfIn(block);
    return self == folder.number
        || (self == 0 && ExtDirectory::forEachEntry(geometry, block, [](const auto& /*entry*/) {}));
}

void ExtNames::readOld(const ExtFolder& folder, std::uint64_t block)
{
    const auto* const journal = context_.journal();
    if (journal == nullptr)
        return;
    const auto& owner = files_.entries[folder.entry];
    const auto copies = journal->copiesOf(block);
    for (const auto& copy : copies) {
        if (copy.sequence < owner.born || copy.sequence >= owner.namedBefore)
            continue;
        const auto bytes = journal->content(copy);
        if (bytes.empty() || !isOfEnded(owner, bytes))
            continue;
        ++blocksRead_;
        readEntries(bytes, { folder.entry, copy.sequence, false, false });
        if (ExtDirectory::selfIn(bytes) == owner.number)
            noteParent(folder, ExtDirectory::parentIn(bytes));
    }
}

bool ExtNames::readEntries(ByteView block, const Place& place)
{
    return ExtDirectory::forEachEntry(
        context_.geometry(), block, [&](const auto& entry) { take(entry, place); });
}

void ExtNames::take(const ExtDirectory::Entry& entry, const Place& place)
{
    const auto& changes = context_.fastCommits().names;
    const auto change = changes.empty() ? changes.end()
                                        : changes.find({ files_.entries[place.folder].number,
                                            entry.inode, std::string(entry.name) });
    if (place.isOfNow && change != changes.end()) {
        if (!change->second)
            nameEnded(entry, { place.folder, ExtLife::now, false, true });
    } else if (place.isOfNow && !entry.isDeleted) {
        auto* const file = files_.findLiving(entry.inode);
        if (file != nullptr && fitsKind(entry.type, file->kind))
            nameLiving(*file, entry, place);
    } else {
        nameEnded(entry, place);
    }
}

void ExtNames::nameLiving(ExtEntry& file, const ExtDirectory::Entry& entry, const Place& place)
{
    if (file.namedAt != ExtLife::now) {
        file.node->name = entry.name;
        file.parent = place.folder;
        file.namedAt = ExtLife::now;
    } else if (!file.node->isDirectory()
        && hardLinks_.size() < files_.livingCount + maxHardLinksPerEntry) {
        hardLinks_.push_back({ static_cast<ExtEntry::Index>(&file - files_.entries.data()),
            place.folder, std::string(entry.name) });
    }
}

/// A name from a state of its own transaction counts before one that is only older than some
/// transaction.
void ExtNames::nameEnded(const ExtDirectory::Entry& entry, const Place& place)
{
    const bool isDated = !place.isAnyTime && !entry.isDeleted;
    auto* file = isDated ? files_.findEnded(entry.inode, place.sequence)
                         : files_.findLastEnded(entry.inode, place.sequence);
    if (file == nullptr)
        file = files_.findLiving(entry.inode); // whose name of now may be lost
    if (file == nullptr || !fitsKind(entry.type, file->kind))
        return;
    const auto at = isDated ? place.sequence : 0;
    if (file->isNamed() && at <= file->namedAt)
        return;
    file->node->name = entry.name;
    file->parent = place.folder;
    file->namedAt = at;
}

/// A folder without a name can still lie where its own first block says.
void ExtNames::noteParent(const ExtFolder& folder, std::uint32_t parent)
{
    auto& owner = files_.entries[folder.entry];
    if (owner.isNamed() || owner.parent != ParentLinks::none || parent == 0)
        return;
    auto* above = files_.findLiving(parent);
    if (above == nullptr && !owner.isAlive())
        above = files_.findLastEnded(parent, ExtLife::now);
    if (above == nullptr && parent == rootInode)
        owner.parent = ParentLinks::root;
    if (above != nullptr && above->kind == directoryMode)
        owner.parent = static_cast<ExtEntry::Index>(above - files_.entries.data());
}
