#include "VintrelCore/FileSystems/HFSPlus/ForkReader.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

HFSPlusForkReader::HFSPlusForkReader(
    DiskSource& source, const ExtentList& pieces, std::uint64_t size)
    : source_(source)
    , size_(size)
{
    std::uint64_t start = 0;
    for (const auto& extent : pieces) {
        if (start >= size)
            break;
        pieces_.push_back({ start, { extent.offset, std::min(extent.length, size - start) } });
        start += pieces_.back().extent.length;
    }
}

ByteView HFSPlusForkReader::view(std::uint64_t offset, std::size_t length)
{
    if (offset >= size_)
        return {};
    const auto count = std::min<std::uint64_t>({ length, windowSize, size_ - offset });
    if (offset < windowStart_ || offset + count > windowStart_ + window_.size()) {
        window_.resize(
            static_cast<std::size_t>(std::min<std::uint64_t>(windowSize, size_ - offset)));
        windowStart_ = offset;
        read(offset, window_);
    }
    return ByteView(window_).sub(
        static_cast<std::int64_t>(offset - windowStart_), static_cast<std::int64_t>(count));
}

void HFSPlusForkReader::read(std::uint64_t offset, std::span<std::uint8_t> into)
{
    auto piece = std::ranges::upper_bound(pieces_, offset, {}, &Piece::start);
    if (piece != pieces_.begin())
        --piece;
    for (; !into.empty() && piece != pieces_.end(); ++piece) {
        const auto inside = offset - piece->start;
        const auto part = into.first(static_cast<std::size_t>(
            std::min<std::uint64_t>(into.size(), piece->extent.length - inside)));
        if (piece->extent.offset)
            source_.readReporting(*piece->extent.offset + inside, part, ReadMode::thorough);
        else
            std::ranges::fill(part, std::uint8_t { 0 });
        into = into.subspan(part.size());
        offset += part.size();
    }
    std::ranges::fill(into, std::uint8_t { 0 });
}

RangeSet HFSPlusForkReader::lostParts() const
{
    const auto badSectors = source_.badSectors();
    const std::uint64_t sectorSize = source_.sectorSize();
    RangeSet lost;
    for (const auto& [start, extent] : pieces_) {
        const std::uint64_t onSource
            = extent.offset ? std::min(extent.length, source_.size() - *extent.offset) : 0;
        lost.add(start + onSource, start + extent.length);
        if (onSource == 0)
            continue;
        const auto end = *extent.offset + onSource;
        for (auto bad = badSectors.firstEndingBehind(*extent.offset / sectorSize);
             bad && bad->start * sectorSize < end; bad = badSectors.firstEndingBehind(bad->end)) {
            const auto lostStart = std::max(bad->start * sectorSize, *extent.offset);
            const auto lostEnd = std::min(bad->end * sectorSize, end);
            lost.add(start + (lostStart - *extent.offset), start + (lostEnd - *extent.offset));
        }
    }
    return lost;
}
