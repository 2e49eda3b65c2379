#include "VintrelCore/Fragments/PiecedBytes.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

namespace Fragments {

ByteView BlockCache::from(std::uint64_t offset)
{
    if (offset >= source_.size())
        return {};
    const auto index = offset / blockSize;
    auto found = byIndex_.find(index);
    if (found == byIndex_.end()) {
        const auto start = index * blockSize;
        const auto count = std::min(blockSize, source_.size() - start);
        if (blocks_.size() >= mostBlocks) {
            byIndex_.erase(blocks_.back().index);
            blocks_.pop_back();
        }
        blocks_.push_front(
            { index, source_.read(start, static_cast<std::int64_t>(count), ReadMode::fast) });
        bytesRead_ += count;
        found = byIndex_.emplace(index, blocks_.begin()).first;
    } else if (found->second != blocks_.begin()) {
        blocks_.splice(blocks_.begin(), blocks_, found->second);
    }
    const ByteView bytes = found->second->bytes;
    return bytes.sub(static_cast<std::int64_t>(offset % blockSize), blockSize);
}

PiecedBytes::PiecedBytes(
    BlockCache& cache, std::vector<ByteRange> pieces, const std::optional<KnownEnd>& end)
    : cache_(cache)
    , pieces_(std::move(pieces))
    , end_(end)
    , sizeOfAll_(sizeOf(pieces_))
{
}

ByteView PiecedBytes::stretch(std::uint64_t position, std::size_t count)
{
    if (position >= size_)
        return {};
    std::uint64_t most = std::min<std::uint64_t>(count, size_ - position);
    for (const auto& [start, end] : pieces_) {
        if (position < end - start) {
            most = std::min(most, end - start - position);
            return cache_.from(start + position).sub(0, static_cast<std::int64_t>(most));
        }
        position -= end - start;
    }
    return {};
}

std::uint64_t PiecedBytes::WithEnd::size() const
{
    const auto& end = *file_.end_;
    return end.position + file_.cache_.source().size()
        - std::min(end.offset, file_.cache_.source().size());
}

ByteView PiecedBytes::WithEnd::stretch(std::uint64_t position, std::size_t count)
{
    const auto& end = *file_.end_;
    if (position < end.position)
        return file_.stretch(position,
            static_cast<std::size_t>(std::min<std::uint64_t>(count, end.position - position)));
    return file_.cache_.from(end.offset + (position - end.position))
        .sub(0, static_cast<std::int64_t>(count));
}

void PiecedBytes::growTo(std::uint64_t size)
{
    size_ = std::max(size_, std::min(size, sizeOfAll_));
}

std::vector<ByteRange> cutTo(std::vector<ByteRange> pieces, std::uint64_t size)
{
    std::uint64_t before = 0;
    for (auto& [start, end] : pieces) {
        end = start + std::min(end - start, size - std::min(size, before));
        before += end - start;
    }
    std::erase_if(pieces, [](const ByteRange& piece) { return piece.start == piece.end; });
    return pieces;
}

std::uint64_t sizeOf(const std::vector<ByteRange>& pieces)
{
    std::uint64_t size = 0;
    for (const auto& [start, end] : pieces)
        size += end - start;
    return size;
}

} // namespace Fragments
