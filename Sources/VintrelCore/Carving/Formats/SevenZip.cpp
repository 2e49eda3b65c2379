#include "VintrelCore/Carving/Formats/Formats.h"

namespace Formats {

Found sevenZip(const Candidate& candidate)
{
    constexpr std::uint64_t headerSize = 32;
    constexpr std::uint64_t offsetLimit = std::uint64_t { 1 } << 40;
    constexpr std::uint64_t sizeLimit = std::uint64_t { 1 } << 30;

    auto& file = candidate.file;
    if (!file.matches(0, "7z\xBC\xAF\x27\x1C"))
        return std::nullopt;
    const auto nextHeaderOffset
        = file.u64le(12); // from the end of this header, like everything in the archive
    const auto nextHeaderSize = file.u64le(20);
    if (nextHeaderOffset >= offsetLimit || nextHeaderSize == 0 || nextHeaderSize >= sizeLimit)
        return std::nullopt;
    const std::uint64_t size = headerSize + nextHeaderOffset + nextHeaderSize;
    if (!candidate.fits(size))
        return std::nullopt;
    return candidate.found(size, "7z");
}

} // namespace Formats
