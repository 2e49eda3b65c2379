#include "VintrelCore/FileSystems/NTFS/Shadow/Chain.h"

#include "VintrelCore/Disk/DiskSource.h"

namespace NTFSShadow {

ChainReader::ChainReader(DiskSource& source, std::uint64_t base, RecordType type,
    std::uint64_t first, ChainBudget& budget)
    : source_(source)
    , base_(base)
    , type_(type)
    , next_(first)
    , budget_(budget)
{
}

std::optional<ByteView> ChainReader::next()
{
    if (next_ == 0 || isDamaged_)
        return std::nullopt;
    isDamaged_ = true; // unless it turns out otherwise
    if (budget_.blocks == 0 || base_ >= source_.size() || next_ >= source_.size() - base_)
        return std::nullopt;
    --budget_.blocks;
    block_.resize(blockSize);
    const auto badBytes
        = source_.readReporting(base_ + next_, std::span(block_), ReadMode::thorough);
    const auto header = *ByteView(block_).load<BlockHeader>(0);
    if (badBytes > 0 || header.identifier != identifier || header.type != type_
        || header.offset != next_)
        return std::nullopt;
    isDamaged_ = false;
    next_ = header.next;
    return ByteView(block_).sub(sizeof(BlockHeader), blockSize);
}

} // namespace NTFSShadow
