#include "VintrelCore/FileSystems/NTFS/Shadow/Mapping.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>

namespace NTFSShadow {

Mapping::Mapping(std::uint64_t base, std::uint64_t size, std::span<const BlockList> stores)
    : base_(base)
    , size_(size)
    , stores_(stores)
{
}

std::vector<Mapping::Piece> Mapping::locate(std::uint64_t offset, std::uint64_t length) const
{
    std::vector<Piece> pieces;
    const auto addOutside = [&](std::uint64_t end) {
        if (offset >= end)
            return;
        const auto count = std::min(length, end - offset);
        pieces.push_back({ offset, count, volumeItself });
        offset += count;
        length -= count;
    };
    addOutside(base_);
    if (length > 0 && offset - base_ < size_) {
        // The next piece to be found comes last. Each task makes way for some in newer stores, so
        // that their number bounds the work.
        std::vector<Task> open { { offset - base_, std::min(length, size_ - (offset - base_)),
            0 } };
        offset += open.front().length;
        length -= open.front().length;
        while (!open.empty()) {
            const auto task = open.back();
            open.pop_back();
            if (task.store < stores_.size())
                split(task, open, pieces);
            else
                add(pieces, task.offset, task.length, volumeItself);
        }
    }
    if (length > 0)
        pieces.push_back({ offset, length, volumeItself });
    return pieces;
}

/// Takes the front of the task, up to the end of the first block that its store has something of.
void Mapping::split(const Task& task, std::vector<Task>& open, std::vector<Piece>& pieces) const
{
    const auto* const block = stores_[task.store].firstEndingBehind(task.offset);
    const std::uint64_t end = task.offset + task.length;
    if (block == nullptr || block->original >= end) {
        open.push_back({ task.offset, task.length, task.store + 1 });
        return;
    }
    if (block->original > task.offset) {
        open.push_back({ block->original, end - block->original, task.store });
        open.push_back({ task.offset, block->original - task.offset, task.store + 1 });
        return;
    }
    const std::uint64_t blockEnd = std::min(end, block->original + blockSize);
    if (blockEnd < end)
        open.push_back({ blockEnd, end - blockEnd, task.store });
    takeBlock({ task.offset, blockEnd - task.offset, task.store }, *block, open, pieces);
}

/// A task that lies in one listed block.
void Mapping::takeBlock(const Task& task, const BlockList::Block& block, std::vector<Task>& open,
    std::vector<Piece>& pieces) const
{
    const auto within = task.offset - block.original;
    const auto isOverlaid
        = [&](std::uint64_t at) { return (block.overlaid >> at / sectorSize & 1) != 0; };
    // As many sectors as lie in the same place.
    auto end = std::min(unitEnd(within, sectorSize), within + task.length);
    while (end < within + task.length && isOverlaid(end) == isOverlaid(within))
        end = std::min(end + sectorSize, within + task.length);
    const auto count = end - within;
    if (count < task.length)
        open.push_back({ task.offset + count, task.length - count, task.store });
    if (isOverlaid(within))
        add(pieces, block.overlay + within, count, task.store);
    else if (block.isCopied)
        add(pieces, block.place + within, count, task.store);
    else
        open.push_back({ block.place + within, count, task.store + 1 });
}

void Mapping::add(
    std::vector<Piece>& pieces, std::uint64_t offset, std::uint64_t length, std::size_t store) const
{
    offset += base_;
    if (!pieces.empty() && pieces.back().store == store
        && pieces.back().offset + pieces.back().length == offset)
        pieces.back().length += length;
    else
        pieces.push_back({ offset, length, store });
}

std::unique_ptr<DiskSource> Mapping::open(DiskSource& source) const
{
    const auto read = [this, &source](std::uint64_t offset, std::span<std::uint8_t> into) {
        std::uint64_t badBytes = 0;
        for (const auto& piece : locate(offset, into.size())) {
            const auto count = static_cast<std::size_t>(piece.length);
            badBytes += source.readReporting(piece.offset, into.first(count), ReadMode::thorough);
            into = into.subspan(count);
        }
        return badBytes == 0;
    };
    return std::make_unique<DiskSource>(DiskSource::Opened { .descriptor = {},
        .path = source.path(),
        .displayName = source.displayName(),
        .size = source.size(),
        .sectorSize = source.sectorSize(),
        .isDevice = false,
        .bsdName = {},
        .cleanup = {},
        .read = read });
}

} // namespace NTFSShadow
