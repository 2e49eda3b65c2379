#include "VintrelCore/Carving/Formats/Formats.h"

namespace Formats {

Found aiff(const Candidate& candidate)
{
    constexpr std::uint64_t leastLength
        = 47; // above that of a form with its common chunk and nothing else
    auto& file = candidate.file;
    const std::uint64_t length = file.u32be(4);
    if ((!file.matches(8, "AIFF") && !file.matches(8, "AIFC")) || length < leastLength)
        return std::nullopt;
    return candidate.found(length + 8, "aif");
}

} // namespace Formats
