#include "VintrelCore/FileSystems/APFS/ContainerState.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Superblock.h"

#include <utility>

namespace {

/// An extent record takes up more bytes than this on disk.
constexpr std::uint64_t bytesPerExtent = 48;
constexpr std::uint64_t minExtentBudget = 65'536;

APFSBlockReader blocksOf(DiskSource& source, std::uint64_t base, ByteView first)
{
    const auto superblock = APFSSuperblock::newest(source, base, first);
    return { source, base, superblock.blockSize, superblock.blockCount };
}

} // namespace

APFSContainerState::APFSContainerState(
    DiskSource& source, std::uint64_t base, ByteView first, std::uint64_t firstOffset)
    : blocks_(blocksOf(source, base, first))
    , checkpoints_(blocks_, first, firstOffset)
    , volumeMaps_(blocks_)
    , leaves_(blocks_.blockSize())
    , chances_(blocks_)
    , extentBudget_(source.size() / bytesPerExtent + minExtentBudget)
{
}

APFSContainerState::APFSContainerState(DiskSource& source, std::uint64_t base,
    std::uint64_t blockSize, std::vector<APFSObjectVersion> volumes)
    : blocks_(source, base, blockSize, (source.size() - base) / blockSize)
    , checkpoints_(blocks_, std::move(volumes))
    , volumeMaps_(blocks_)
    , leaves_(blocks_.blockSize())
    , chances_(blocks_)
    , extentBudget_(source.size() / bytesPerExtent + minExtentBudget)
{
}
