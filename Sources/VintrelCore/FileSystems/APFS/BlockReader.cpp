#include "VintrelCore/FileSystems/APFS/BlockReader.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

namespace {

/// What asks for so many times more blocks than the source has is made up. A few more are for
/// sources that are hardly longer than a superblock.
constexpr std::uint64_t readsPerBlock = 8;
constexpr std::uint64_t extraBlocks = 8;

} // namespace

APFSBlockReader::APFSBlockReader(
    DiskSource& source, std::uint64_t base, std::uint64_t blockSize, std::uint64_t blockCount)
    : source_(source)
    , base_(base)
    , blockSize_(blockSize)
    , blockCount_(blockCount)
    , readBudget_(readsPerBlock * (source.size() / blockSize + extraBlocks))
{
}

std::optional<std::uint64_t> APFSBlockReader::offsetOf(std::uint64_t block) const
{
    if (base_ >= source_.size() || block > (source_.size() - base_ - 1) / blockSize_)
        return std::nullopt;
    return base_ + block * blockSize_;
}

APFSBlocks APFSBlockReader::blocksAt(std::uint64_t offset, std::uint64_t length) const
{
    const std::uint64_t first = (offset - base_) / blockSize_;
    return { first, first + unitsFor(length, blockSize_) };
}

bool APFSBlockReader::isValid(std::uint64_t block) const
{
    return block != 0 && blockCount_ != 1 && (blockCount_ == 0 || block < blockCount_)
        && offsetOf(block);
}

bool APFSBlockReader::read(std::uint64_t block, Bytes& buffer)
{
    if (!isValid(block) || !readBudget_.take(1))
        return false;
    buffer.resize(static_cast<std::size_t>(blockSize_));
    const std::uint64_t lost
        = source_.readReporting(*offsetOf(block), std::span(buffer), ReadMode::thorough);
    if (lost > 0 && unreadable_.insert(block).second)
        ++newUnreadable_;
    return true;
}

Bytes APFSBlockReader::readAvailable(DiskSource& source, std::uint64_t offset, std::uint64_t count)
{
    if (offset >= source.size())
        return {};
    const auto available = std::min(source.size() - offset, count);
    return source.read(offset, static_cast<std::int64_t>(available), ReadMode::thorough);
}
