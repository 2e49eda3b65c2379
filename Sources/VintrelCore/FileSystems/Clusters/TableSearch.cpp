#include "VintrelCore/FileSystems/Clusters/TableSearch.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

std::optional<std::uint64_t> TableSearch::last(DiskSource& source) const
{
    constexpr std::uint64_t sectorSize = 512;
    constexpr std::uint64_t pieceSize = 65'536;
    constexpr std::uint64_t maxLength = std::uint64_t { 256 } << 20;
    constexpr std::uint64_t maxCandidates = 64;
    constexpr std::uint64_t maxBytesOfCandidates = std::uint64_t { 1 } << 30;
    const std::uint64_t searched = std::min({ length, end, maxLength });
    if (searched == 0)
        return std::nullopt;
    std::uint64_t candidates = std::min(maxCandidates, maxBytesOfCandidates / searched);
    for (std::uint64_t done = 0; done < searched; done += pieceSize) {
        const std::uint64_t count = std::min(pieceSize, searched - done) / sectorSize * sectorSize;
        const std::uint64_t start = end - done - count;
        const auto piece = source.read(start, static_cast<std::int64_t>(count), ReadMode::thorough);
        for (std::uint64_t at = count; at >= sectorSize;) {
            at -= sectorSize;
            if (!mayBegin(ByteView(piece).sub(static_cast<std::int64_t>(at), sectorSize)))
                continue;
            if (isConfirmedAt(start + at))
                return start + at;
            if (--candidates == 0)
                return std::nullopt;
        }
    }
    return std::nullopt;
}
