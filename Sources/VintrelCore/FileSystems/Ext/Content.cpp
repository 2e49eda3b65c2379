#include "VintrelCore/FileSystems/Ext/Content.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

using namespace ExtFormat;

namespace {

/// States of a block that are tried, the newest ones. More are only made up.
constexpr std::size_t maxTried = 64;

} // namespace

ExtContent::Made ExtContent::makeLiving(const ExtInode& inode, ByteView slot)
{
    const auto& blocks = context_.blocks();
    bool isSound = inode.isSound;
    auto made = make(inode, slot, EntryStatus::existing,
        [&](std::uint64_t block, const ExtBlockMaps::Judge& judge) {
            auto bytes = blocks.read(block);
            const auto fit = judge(bytes);
            isSound = isSound && (fit == ExtFit::proved || !context_.geometry().hasChecksums());
            return fit != ExtFit::none ? bytes : Bytes();
        });
    unsoundCount_ += isSound ? 0 : 1;
    if (made.node && !made.node->isDirectory())
        judge(*made.node, made.doubts);
    return made;
}

ExtContent::Made ExtContent::makeDead(const ExtLife& life)
{
    auto made = make(life.inode, life.slot, EntryStatus::deleted,
        [&](std::uint64_t block, const ExtBlockMaps::Judge& judge) {
            return lookUpOld(block, life, judge);
        });
    if (made.node && life.isStateDead && life.inode.hasExtents() && life.inode.size == 0)
        takeTraces(made, life);
    return made;
}

/// What the nodes of the tree say where the inode says nothing.
void ExtContent::takeTraces(Made& made, const ExtLife& life)
{
    auto mapping = maps_.readDeadTree(
        life.inode, [&](std::uint64_t block, const ExtBlockMaps::Judge& judge) {
            return lookUpOld(block, life, judge);
        });
    if (mapping.runs.empty())
        return;
    if (made.node->isDirectory()) {
        made.runs = std::move(mapping.runs);
        return;
    }
    takeRuns(*made.node, mapping);
    made.doubts.add(Doubt::unknownSize);
    if (!mapping.isWhole)
        made.doubts.add(Doubt::lostBlocks);
}

/// Systems fill the last block of a file with zeros.
void ExtContent::takeRuns(FileNode& node, const ExtMapping& mapping) const
{
    const auto& geometry = context_.geometry();
    const auto& last = mapping.runs.back();
    const auto block = context_.blocks().read(last.physical + last.count - 1);
    const auto end
        = std::find_if(block.rbegin(), block.rend(), [](std::uint8_t byte) { return byte != 0; });
    node.size = saturatingMultiply(last.end(), geometry.blockSize)
        - static_cast<std::uint64_t>(end - block.rbegin());
    node.data = maps_.place(mapping, node.size);
}

/// A block as it was when the file had it: the newest state in the journal from before the file's
/// end, what is on the disk, and last what the journal has from later, of which its checksum or
/// nothing says that it is still the file's.
Bytes ExtContent::lookUpOld(
    std::uint64_t block, const ExtLife& life, const ExtBlockMaps::Judge& judge) const
{
    Bytes possible;
    const auto isProved = [&](Bytes bytes) {
        const auto fit = bytes.empty() ? ExtFit::none : judge(bytes);
        if (fit == ExtFit::proved || (fit == ExtFit::possible && possible.empty()))
            possible = std::move(bytes);
        return fit == ExtFit::proved;
    };
    const auto* const journal = context_.journal();
    const auto all
        = journal != nullptr ? journal->copiesOf(block) : std::span<const ExtJournalCopy>();
    const auto copies = all.last(std::min(all.size(), maxTried));
    for (auto copy = copies.rbegin(); copy != copies.rend(); ++copy)
        if (copy->sequence >= life.born && copy->sequence < life.died
            && isProved(journal->content(*copy)))
            return possible;
    if (isProved(context_.blocks().read(block)))
        return possible;
    for (const auto& copy : copies)
        if (copy.sequence >= life.died && isProved(journal->content(copy)))
            return possible;
    return possible;
}

ExtContent::Made ExtContent::make(
    const ExtInode& inode, ByteView slot, EntryStatus status, const ExtBlockMaps::Lookup& lookup)
{
    Made made;
    if (!inode.isDirectory() && !inode.isFile() && !inode.isLink())
        return made;
    made.node = inode.isDirectory()
        ? FileNode::makeFolder("", status)
        : FileNode::makeFile("", inode.size, status, Recoverability::good);
    auto& node = *made.node;
    node.fsID = inode.number;
    node.created = inode.created;
    node.modified = inode.modified;
    if ((inode.flags & encryptedFlag) != 0)
        made.doubts.add(Doubt::encryptedByExt);
    if (inode.isFastLink()) {
        node.data = Bytes(inode.map.begin(),
            inode.map.begin()
                + static_cast<std::ptrdiff_t>(
                    std::min<std::uint64_t>(inode.size, inode.map.size())));
        return made;
    }
    if (inode.isInline()) {
        if (inode.isDirectory())
            return made;
        auto content = ExtInodes::inlineContent(inode, slot);
        if (content.size() < inode.size)
            made.doubts.add(Doubt::partlyUnknownBlocks);
        node.data = std::move(content);
        return made;
    }
    auto mapping = maps_.read(inode, lookup);
    if (!mapping.isWhole)
        made.doubts.add(
            status == EntryStatus::existing ? Doubt::partlyUnknownBlocks : Doubt::lostBlocks);
    if (inode.isDirectory()) {
        made.runs = std::move(mapping.runs);
        return made;
    }
    if (!mapping.isWhole && mapping.runs.empty() && inode.size > 0)
        made.doubts = Doubt::unknownBlocks;
    else
        node.data = maps_.place(mapping, inode.size);
    return made;
}
