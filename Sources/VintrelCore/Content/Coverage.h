#pragma once

#include <algorithm>
#include <cstdint>

namespace Content {

/// Whether foreign sectors could lie in a file unnoticed. Pieces of files are whole sectors; so a
/// file shows that all of it is its own when every sector has enough bytes that were verified.
class Coverage {
public:
    /// To be told of each verified range, in rising order. In bytes from the file's start.
    void verify(std::uint64_t start, std::uint64_t end)
    {
        if (start > end_)
            hidesSector_ |= mayHide(end_, start);
        end_ = std::max(end_, end);
    }
    /// Whether every sector of a file of this length was verified.
    bool isCompleteAt(std::uint64_t length) const
    {
        const auto lastSector = length == 0 ? 0 : (length - 1) / sectorSize * sectorSize;
        const bool isEndVerified = end_ >= length || end_ >= lastSector + enough;
        return !hidesSector_ && isEndVerified;
    }

private:
    static constexpr std::uint64_t sectorSize = 512;
    static constexpr std::uint64_t enough = 4; ///< verified bytes that tell a foreign sector

    /// Whether a sector has fewer verified bytes than `enough` when [start, end) has none.
    static bool mayHide(std::uint64_t start, std::uint64_t end)
    {
        const auto firstSector = (start + sectorSize - enough) / sectorSize * sectorSize;
        return end > firstSector && end - firstSector > sectorSize - enough;
    }

    std::uint64_t end_ = 0; ///< of the last verified range
    bool hidesSector_ = false;
};

} // namespace Content
