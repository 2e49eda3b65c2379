#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>

// Fujifilm documents its raw format nowhere; what is known of it is a table of three parts.

namespace Formats {

Found raf(const Candidate& candidate)
{
    struct Part {
        BE32 offset;
        BE32 length;
    };
    struct Parts { // JPEG preview, sensor header, sensor data
        std::array<Part, 3> all;
    };
    constexpr std::uint64_t partsOffset = 84;
    constexpr std::uint64_t maxEnd = 2'147'483'648;
    constexpr std::uint64_t minSize = 1025;

    auto& file = candidate.file;
    if (!file.matches(0, "FUJIFILMCCD-RAW "))
        return std::nullopt;
    std::uint64_t size = 0;
    for (const auto& part : file.load<Parts>(partsOffset).all) {
        const std::uint64_t end = std::uint64_t { part.offset } + part.length;
        if (part.offset != 0 && part.length != 0 && end < maxEnd)
            size = std::max(size, end);
    }
    if (size < minSize)
        return std::nullopt;
    auto found = candidate.found(size, "raf");
    const std::uint64_t preview = file.load<Parts>(partsOffset).all.front().offset;
    found.isProved = candidate.fits(size) && file.matches(preview, "\xFF\xD8\xFF");
    return found;
}

} // namespace Formats
