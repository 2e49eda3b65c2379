#include "VintrelCore/FileSystems/NTFS/MappedStream.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

MappedStream::MappedStream(ExtentList extents)
    : extents_(std::move(extents))
{
    std::uint64_t end = 0;
    ends_.reserve(extents_.size());
    for (const auto& extent : extents_)
        ends_.push_back(end += extent.length);
}

Extent MappedStream::at(std::uint64_t position) const
{
    const auto end = std::ranges::upper_bound(ends_, position);
    if (end == ends_.end())
        return {};
    const auto& extent = extents_[static_cast<std::size_t>(end - ends_.begin())];
    const std::uint64_t left = *end - position;
    return { extent.offset ? std::optional(*extent.offset + extent.length - left) : std::nullopt,
        left };
}

MappedStream::ReadResult MappedStream::read(
    DiskSource& source, std::uint64_t position, std::span<std::uint8_t> into) const
{
    ReadResult result;
    while (!into.empty()) {
        const auto [offset, length] = at(position);
        const auto piece = into.first(length == 0
                ? into.size()
                : static_cast<std::size_t>(std::min<std::uint64_t>(length, into.size())));
        if (offset)
            result.badBytes += source.readReporting(*offset, piece, ReadMode::thorough);
        else
            std::ranges::fill(piece, std::uint8_t { 0 });
        result.isOnSource = result.isOnSource || offset;
        position += piece.size();
        into = into.subspan(piece.size());
    }
    return result;
}
