#include "VintrelCore/FileSystems/NTFS/Shadow/BlockList.h"

#include <algorithm>
#include <unordered_map>

namespace NTFSShadow {

namespace {

/// What lies beyond is on no volume, and could overflow.
constexpr std::uint64_t maxOffset = std::uint64_t { 1 } << 62;

bool isPossible(const StoredBlock& stored)
{
    return (stored.flags & isUnused) == 0 && stored.original % blockSize == 0
        && stored.copy % sectorSize == 0 && stored.original < maxOffset && stored.copy < maxOffset
        && stored.relative < maxOffset;
}

/// Takes the entries of a list in the order in which the system wrote them.
class ListBuilder {
public:
    using Block = BlockList::Block;

    void add(const StoredBlock& stored)
    {
        if ((stored.flags & isOverlay) != 0) {
            blocks_.push_back({ .original = stored.original,
                .place = stored.original,
                .overlay = stored.copy,
                .overlaid = stored.sectors });
            return;
        }
        const bool isCopy = (stored.flags & isForwarder) == 0;
        const std::uint64_t place = isCopy ? stored.copy : stored.relative;
        const auto index = indexFor(stored.original);
        blocks_[index].place = place;
        blocks_[index].isCopied = isCopy;
        if (!isCopy)
            forwarded_[place] = index;
    }

    /// The blocks by place, what several entries say of one put together.
    std::vector<Block> finish()
    {
        std::ranges::stable_sort(blocks_, {}, &Block::original);
        std::size_t count = 0;
        for (const auto& block : blocks_) {
            if (count > 0 && blocks_[count - 1].original == block.original)
                merge(blocks_[count - 1], block);
            else
                blocks_[count++] = block;
        }
        blocks_.resize(count);
        return std::move(blocks_);
    }

private:
    /// The entry that says where the content of this block is by now: a new one, unless that
    /// content came from elsewhere.
    std::size_t indexFor(std::uint64_t original)
    {
        const auto came = forwarded_.find(original);
        if (came == forwarded_.end()) {
            blocks_.push_back({ .original = original });
            return blocks_.size() - 1;
        }
        const auto index = came->second;
        forwarded_.erase(came);
        return index;
    }

    static bool isMoved(const Block& block)
    {
        return block.isCopied || block.place != block.original;
    }

    /// A block is kept when it is first written to: what is kept of it later is newer. Sectors that
    /// were kept by themselves share one place.
    static void merge(Block& block, const Block& later)
    {
        if (block.overlaid == 0)
            block.overlay = later.overlay;
        if (block.overlay == later.overlay)
            block.overlaid |= later.overlaid;
        if (!isMoved(block)) {
            block.place = later.place;
            block.isCopied = later.isCopied;
        }
    }

    std::vector<Block> blocks_;
    std::unordered_map<std::uint64_t, std::size_t> forwarded_; ///< by where the content went to
};

} // namespace

BlockList BlockList::read(
    DiskSource& source, std::uint64_t base, std::uint64_t first, ChainBudget& budget)
{
    ChainReader chain(source, base, blockList, first, budget);
    ListBuilder builder;
    while (const auto block = chain.next())
        for (std::int64_t at = 0; const auto stored = block->load<StoredBlock>(at);
             at += sizeof(StoredBlock))
            if (isPossible(*stored) && (stored->copy != 0 || stored->relative != 0))
                builder.add(*stored);
    BlockList list;
    list.blocks_ = builder.finish();
    list.isDamaged_ = chain.isDamaged();
    return list;
}

const BlockList::Block* BlockList::firstEndingBehind(std::uint64_t offset) const
{
    const auto block = std::ranges::upper_bound(
        blocks_, offset, {}, [](const Block& listed) { return listed.original + blockSize; });
    return block != blocks_.end() ? &*block : nullptr;
}

} // namespace NTFSShadow
