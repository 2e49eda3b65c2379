#include "VintrelCore/FileSystems/Clusters/DirectoryHints.h"

#include <algorithm>

std::uint64_t DirectoryHints::endBehind(std::uint64_t last, std::uint64_t sourceSize) const
{
    std::uint64_t end = sourceSize;
    for (const auto start : volumeStarts)
        if (start > last)
            end = std::min(end, start);
    return end;
}
