#include "VintrelCore/FileSystems/Ext/Context.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/BlockMap.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

using namespace ExtFormat;

namespace {

/// The superblock as it is when the journal has been replayed, where that is still one.
ExtGeometry replayedGeometry(const ExtBlocks& blocks, const ExtGeometry& before)
{
    const auto head
        = blocks.read(0, unitsFor(superblockOffset + sizeof(Superblock), before.blockSize));
    const auto superblock
        = ExtSuperblock::decode(ByteView(head).sub(superblockOffset, sizeof(Superblock)));
    if (!superblock || superblock->uuid != before.superblock.uuid)
        return before;
    const auto geometry = ExtGeometry::from(*superblock, before.base);
    return geometry && geometry->blockSize == before.blockSize ? *geometry : before;
}

/// The pieces of an internal journal on the source; empty where the map has gaps.
std::vector<ByteRange> piecesOf(const ExtBlocks& blocks, const ExtInode& inode)
{
    const auto& geometry = blocks.geometry();
    ExtBlockMaps maps(geometry);
    const auto mapping
        = maps.read(inode, [&](std::uint64_t block, const ExtBlockMaps::Judge& judge) {
              auto bytes = blocks.read(block);
              return judge(bytes) != ExtFit::none ? bytes : Bytes();
          });
    std::vector<ByteRange> pieces;
    std::uint64_t next = 0;
    for (const auto& run : mapping.runs) {
        if (run.logical != next || !run.isWritten)
            break;
        next = run.end();
        pieces.push_back(
            { geometry.offsetOf(run.physical), geometry.offsetOf(run.physical + run.count) });
    }
    return pieces;
}

} // namespace

ExtContext::ExtContext(
    DiskSource& source, const ExtGeometry& geometry, ExtTrust trust, WorkProgress* progress)
    : blocks_(source, geometry)
    , trust_(trust)
{
    const bool hasOne = trust != ExtTrust::onlyInodes && geometry.isCompatible(Feature::hasJournal);
    if (hasOne) {
        journalPlace_ = findJournal();
        readJournal(progress);
    }
    lacksJournal_ = hasOne && !journal_;
    if (journal_) {
        const auto overlay = journal_->replay();
        replayedBlocks_ = overlay.size();
        blocks_.lay(overlay);
        blocks_.use(replayedGeometry(blocks_, geometry));
    }
    groups_ = std::make_unique<ExtGroups>(blocks_);
    allocation_ = std::make_unique<ExtAllocation>(blocks_, *groups_);
    if (journal_)
        applyFastCommits();
}

void ExtContext::applyFastCommits()
{
    fastCommits_ = ExtFastCommits::read(*journal_);
    for (const auto& inode : fastCommits_.inodes)
        applyInode(inode);
    // On a sound volume each block is given to one file.
    auto left = geometry().blockCount;
    for (const auto& run : fastCommits_.runs) {
        if (run.count > left)
            break;
        left -= run.count;
        allocation_->hold(run.physical, run.count);
    }
}

/// Puts the new state of an inode in its place. The nodes of its extent tree come to the disk with
/// the next transaction, which is not there.
void ExtContext::applyInode(const ExtFastCommits::Inode& inode)
{
    const auto& geometry = this->geometry();
    const auto slot = groups_->slotOf(inode.number);
    if (!slot || patchBytesLeft_ < geometry.blockSize)
        return;
    patchBytesLeft_ -= geometry.blockSize;
    auto table = blocks_.read(slot->block);
    const auto count = std::min<std::size_t>(inode.state.size(), geometry.inodeSize);
    std::copy_n(inode.state.begin(), count, table.begin() + static_cast<std::ptrdiff_t>(slot->at));
    blocks_.patch(slot->block, std::move(table));
    groups_->use(inode.number);
    const auto state = ExtInode::decode(geometry, inode.number, inode.state);
    const auto header = ByteView(state.map).load<ExtentHeader>(0).value_or(ExtentHeader {});
    hasUnreadTrees_ |= state.hasExtents() && header.depth > 0;
}

ExtContext::ExtContext(DiskSource& source, const ExtRemains& remains, WorkProgress* progress)
    : blocks_(source, remains.geometry)
    , trust_(ExtTrust::onlyInodes)
    , journalPlace_(remains.journal)
    , groups_(std::make_unique<ExtGroups>(blocks_, remains.tables))
    , allocation_(std::make_unique<ExtAllocation>(blocks_, *groups_))
{
    readJournal(progress);
}

void ExtContext::readJournal(WorkProgress* progress)
{
    if (journalPlace_.empty())
        return;
    journal_ = std::make_unique<ExtJournal>(
        blocks_.source(), blocks_.geometry(), journalPlace_, progress);
    if (!journal_->isValid())
        journal_.reset();
}

bool ExtContext::isInJournal(std::uint64_t offset) const
{
    return std::ranges::any_of(journalPlace_,
        [&](const ByteRange& piece) { return piece.start <= offset && offset < piece.end; });
}

void ExtContext::keepFiles(std::vector<SeededFile> files)
{
    files_ = std::move(files);
    std::ranges::sort(files_, {}, &SeededFile::seed);
}

const FileNode* ExtContext::fileWith(std::uint32_t seed) const
{
    const auto first = std::ranges::lower_bound(files_, seed, {}, &SeededFile::seed);
    const auto last = std::ranges::upper_bound(files_, seed, {}, &SeededFile::seed);
    return last - first == 1 ? first->file : nullptr;
}

/// By the journal's inode as it lies on the disk or, where that is damaged, by the copy of its map
/// in the superblock.
std::vector<ByteRange> ExtContext::findJournal() const
{
    const auto& geometry = blocks_.geometry();
    const auto& superblock = geometry.superblock;
    const std::uint32_t number = superblock.journalInode;
    const auto tryInode = [&](const ExtInode& inode) {
        auto pieces = piecesOf(blocks_, inode);
        const bool isOne = !pieces.empty()
            && ByteView(
                   blocks_.source().read(pieces.front().start, sizeof(BE32), ReadMode::thorough))
                    .u32be(0)
                == ExtJournalFormat::magicNumber;
        return isOne ? pieces : std::vector<ByteRange>();
    };
    if (number == 0 || number > geometry.inodesPerGroup())
        return {};
    const ExtGroups groups(blocks_);
    if (groups.count() > 0 && groups[0].inodeTable != 0) {
        const auto at = geometry.offsetOf(groups[0].inodeTable)
            + std::uint64_t { number - 1 } * geometry.inodeSize;
        const auto slot = blocks_.source().read(at, geometry.inodeSize, ReadMode::thorough);
        auto pieces = tryInode(ExtInode::decode(geometry, number, slot));
        if (!pieces.empty())
            return pieces;
    }
    if (superblock.journalBackupType != 1)
        return {};
    ExtInode copy { .number = number,
        .mode = fileMode,
        .size = superblock.journalSizeLow | std::uint64_t { superblock.journalSizeHigh } << 32,
        .map = superblock.journalBlocks };
    if (ByteView(copy.map).u16le(0) == extentMagic)
        copy.flags = extentsFlag;
    return tryInode(copy);
}

std::vector<std::string> ExtContext::notes() const
{
    std::vector<std::string> notes;
    const auto& geometry = this->geometry();
    if (geometry.isIncompatible(Feature::journalDevice))
        notes.emplace_back("Journalen ligger på en anden enhed: hvad kun den ved, mangler.");
    else if (lacksJournal_)
        notes.emplace_back("Journalen kunne ikke læses.");
    if (replayedBlocks_ > 0)
        notes.push_back("Filsystemet blev ikke afmonteret: " + std::to_string(replayedBlocks_)
            + " blokke er læst fra journalen.");
    if (!fastCommits_.inodes.empty())
        notes.push_back(
            "Filsystemet blev ikke afmonteret: " + std::to_string(fastCommits_.inodes.size())
            + " ændringer er læst fra journalens hurtige transaktioner.");
    if (hasUnreadTrees_)
        notes.emplace_back(
            "Store filer, der blev skrevet til sidst, kan mangle deres sidste blokke.");
    if (groups_->unsoundCount() > 0)
        notes.push_back(std::to_string(groups_->unsoundCount())
            + " gruppebeskrivelser har en forkert kontrolsum.");
    if (groups_->healedCount() > 0)
        notes.push_back(std::to_string(groups_->healedCount())
            + " gruppers plads er fundet uden om de gældende gruppebeskrivelser.");
    if (groups_->missingCount() > 0)
        notes.push_back(
            std::to_string(groups_->missingCount()) + " gruppers inodetabeller blev ikke fundet.");
    if (geometry.isIncompatible(Feature::encryption))
        notes.emplace_back("Filsystemet kan rumme krypterede mapper: deres navne og filer kan ikke "
                           "læses uden nøglen.");
    if (geometry.isIncompatible(Feature::caseFolding))
        notes.emplace_back("Mapper i filsystemet kan skelne mellem store og små bogstaver eller "
                           "ikke: navne vises, som de er skrevet.");
    return notes;
}
