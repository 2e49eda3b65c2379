#include "VintrelCore/FileSystems/Ext/Remains.h"

#include "VintrelCore/FileSystems/Ext/Directory.h"
#include "VintrelCore/FileSystems/Ext/Inode.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Model/DeepScanResult.h"

#include <algorithm>
#include <map>

using namespace ExtFormat;

namespace {

constexpr std::size_t leastFolders = 3; ///< so many that agree on a layout are no chance
constexpr std::size_t maxFolders = 65'536;
constexpr std::uint64_t bitmapBlocks = 2;   ///< before a group's table
constexpr std::uint32_t maxReserved = 1024; ///< blocks kept for more descriptors
constexpr std::uint64_t directBlocks = 12;

/// The volume as one without what came later than ext3: it has its own descriptors and no name.
ExtGeometry olderGeometry(const ExtGeometry& now)
{
    auto older = now;
    auto& superblock = older.superblock;
    superblock.incompatible = LE32(Feature::entryTypes);
    superblock.readOnlyCompatible = LE32(superblock.readOnlyCompatible & Feature::sparseSuper);
    superblock.logGroupsPerFlex = 0;
    superblock.uuid = {};
    superblock.label = {};
    older.descriptorSize = sizeof(GroupDescriptor) / 2;
    older.clusterBlocks = 1;
    return older;
}

class Finder {
public:
    Finder(const ExtContext& now, const DeepScanResult& finds)
        : now_(now)
        , finds_(finds)
        , older_(olderGeometry(now.geometry()))
    {
    }

    std::optional<ExtRemains> find();

private:
    template <class Take>
    void forEachIn(const std::vector<std::uint64_t>& offsets, Take take) const;
    std::optional<std::uint32_t> reservedBy(std::uint64_t slotOffset) const;
    std::uint64_t blocksBefore(std::uint32_t group) const;
    std::vector<ByteRange> findJournal() const;

    const ExtContext& now_;
    const DeepScanResult& finds_;
    ExtGeometry older_;
};

/// Calls `take` for what lies in the volume, until it returns false.
template <class Take>
void Finder::forEachIn(const std::vector<std::uint64_t>& offsets, Take take) const
{
    const auto base = older_.base;
    for (auto found = std::ranges::lower_bound(offsets, base);
         found != offsets.end() && *found - base < older_.volumeSize(); ++found)
        if (!take(*found))
            return;
}

/// The blocks between the beginning of a group and its bitmaps, without those kept for more
/// descriptors.
std::uint64_t Finder::blocksBefore(std::uint32_t group) const
{
    const auto descriptors
        = unitsFor(std::uint64_t { older_.groupCount } * older_.descriptorSize, older_.blockSize);
    return older_.hasBackup(group) ? 1 + descriptors : 0;
}

/// How many blocks were kept for more descriptors, as the place of a directory's inode tells; none
/// where it is none, or one of the volume that is there now.
std::optional<std::uint32_t> Finder::reservedBy(std::uint64_t slotOffset) const
{
    const auto block = (slotOffset - older_.base) / older_.blockSize;
    const auto inBlock = (slotOffset - older_.base) % older_.blockSize;
    const auto bytes = now_.blocks().read(block);
    const auto slot = ByteView(bytes).sub(static_cast<std::int64_t>(inBlock), older_.inodeSize);
    const auto inode = ExtInode::decode(older_, 0, slot);
    const std::uint64_t first = ByteView(inode.map).u32le(0);
    if (inBlock % older_.inodeSize != 0 || !inode.isDirectory() || inode.hasExtents()
        || !older_.isBlock(first))
        return std::nullopt;
    const auto number = ExtDirectory::selfIn(now_.blocks().read(first));
    if (number == 0 || number > older_.inodeCount())
        return std::nullopt;
    const auto group = (number - 1) / older_.inodesPerGroup();
    const auto inTable = (number - 1) % older_.inodesPerGroup();
    const auto before = older_.firstBlockOf(group) + blocksBefore(group) + bitmapBlocks
        + inTable / older_.inodesPerBlock();
    const bool isInPlace = inBlock / older_.inodeSize == inTable % older_.inodesPerBlock();
    if (!isInPlace || !older_.hasBackup(group) || before > block || block - before > maxReserved)
        return std::nullopt;
    return static_cast<std::uint32_t>(block - before);
}

/// Journals that were made in lists of blocks have those between their own blocks.
std::vector<ByteRange> Finder::findJournal() const
{
    const auto blockSize = older_.blockSize;
    std::vector<ByteRange> pieces;
    forEachIn(finds_.extJournals, [&](std::uint64_t offset) {
        const auto block = (offset - older_.base) / blockSize;
        if ((offset - older_.base) % blockSize != 0 || now_.isInJournal(offset))
            return true;
        const auto head = now_.blocks().read(block);
        const auto superblock = ByteView(head).load<ExtJournalFormat::Superblock>(0);
        if (superblock->blockSize != blockSize)
            return true;
        std::uint64_t left
            = std::min<std::uint64_t>(superblock->blockCount, older_.blockCount - block);
        const auto list = block + directBlocks;
        const bool hasLists = ByteView(now_.blocks().read(list)).u32le(0) == list + 1;
        const std::uint64_t perList = blockSize / sizeof(LE32);
        auto next = block;
        for (std::uint64_t piece = hasLists ? directBlocks : left; left > 0; piece = perList) {
            const auto count = std::min(piece, left);
            pieces.push_back({ older_.offsetOf(next), older_.offsetOf(next + count) });
            // The second list comes behind the list of lists.
            next += count + (pieces.size() == 2 ? 2 : 1);
            left -= count;
        }
        return false;
    });
    return pieces;
}

std::optional<ExtRemains> Finder::find()
{
    std::map<std::uint32_t, std::size_t> votes;
    std::size_t left = maxFolders;
    forEachIn(finds_.extFolderInodes, [&](std::uint64_t offset) {
        const auto reserved = reservedBy(offset);
        votes[reserved.value_or(0)] += reserved ? 1 : 0;
        return --left > 0;
    });
    const auto best
        = std::ranges::max_element(votes, {}, [](const auto& vote) { return vote.second; });
    if (best == votes.end() || best->second < leastFolders)
        return std::nullopt;
    older_.superblock.reservedDescriptorBlocks = LE16(static_cast<std::uint16_t>(best->first));
    ExtRemains remains { .geometry = older_, .tables = {}, .journal = findJournal() };
    remains.tables.reserve(older_.groupCount);
    for (std::uint32_t group = 0; group < now_.groups().count(); ++group) {
        const auto table = older_.firstBlockOf(group) + blocksBefore(group) + bitmapBlocks
            + (older_.hasBackup(group) ? best->first : 0);
        if (table == now_.groups()[group].inodeTable)
            return std::nullopt; // nothing tells its inodes from those that are there now
        const bool isInside = older_.tableBlocks() <= older_.blockCount
            && table < older_.blockCount - older_.tableBlocks();
        remains.tables.push_back(isInside ? table : 0);
    }
    return remains;
}

} // namespace

namespace ExtRemainders {

bool looksLikeFolderInode(ByteView slot)
{
    constexpr std::uint32_t leastBlock = 1024;
    const auto inode = slot.load<Inode>(0);
    return inode && (inode->mode & modeMask) == directoryMode && inode->links >= 2
        && inode->deleted == 0 && inode->sizeLow != 0 && inode->sizeLow % leastBlock == 0
        && (inode->flags & extentsFlag) == 0 && inode->sectorsLow != 0;
}

bool looksLikeJournal(ByteView sector)
{
    const auto superblock = sector.load<ExtJournalFormat::Superblock>(0);
    return superblock && superblock->header.magic == ExtJournalFormat::magicNumber
        && (superblock->header.type == ExtJournalFormat::superblockType
            || superblock->header.type == ExtJournalFormat::oldSuperblockType);
}

std::optional<ExtRemains> find(const ExtContext& now, const DeepScanResult& finds)
{
    return Finder(now, finds).find();
}

} // namespace ExtRemainders
