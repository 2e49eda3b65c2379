#include "VintrelCore/Disk/PieceSource.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

namespace {

bool readPieces(DiskSource& source, const std::vector<ByteRange>& pieces, std::uint64_t offset,
    std::span<std::uint8_t> into)
{
    std::uint64_t missing = 0;
    for (const auto& [start, end] : pieces) {
        if (into.empty())
            break;
        const auto length = end - start;
        if (offset < length) {
            const auto count
                = static_cast<std::size_t>(std::min<std::uint64_t>(length - offset, into.size()));
            missing += source.readReporting(start + offset, into.first(count), ReadMode::fast);
            into = into.subspan(count);
            offset = 0;
        } else {
            offset -= length;
        }
    }
    return missing == 0 && into.empty();
}

} // namespace

std::unique_ptr<DiskSource> sourceOfPieces(DiskSource& source, std::vector<ByteRange> pieces)
{
    DiskSource::Opened opened;
    for (const auto& [start, end] : pieces)
        opened.size += end - start;
    opened.read
        = [&source, pieces = std::move(pieces)](std::uint64_t offset,
              std::span<std::uint8_t> into) { return readPieces(source, pieces, offset, into); };
    return std::make_unique<DiskSource>(std::move(opened));
}
