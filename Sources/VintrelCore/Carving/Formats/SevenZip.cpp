#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "7zFormat.txt" of the LZMA SDK, Signature Header.

namespace Formats {

namespace {

struct SignatureHeader {
    std::array<std::uint8_t, 6> signature; //  0
    std::array<std::uint8_t, 2> version;   //  6
    LE32 startHeaderChecksum;              //  8
    LE64 nextHeaderOffset;   // 12  from the end of this header, like everything in the archive
    LE64 nextHeaderSize;     // 20
    LE32 nextHeaderChecksum; // 28
};
static_assert(sizeof(SignatureHeader) == 32 && offsetof(SignatureHeader, nextHeaderOffset) == 12);

constexpr std::string_view signature = "7z\xBC\xAF\x27\x1C";
constexpr std::uint64_t offsetLimit = std::uint64_t { 1 } << 40;
constexpr std::uint64_t sizeLimit = std::uint64_t { 1 } << 30;

} // namespace

Found sevenZip(const Candidate& candidate)
{
    const auto header = candidate.file.load<SignatureHeader>(0);
    if (!ByteView(header.signature).matches(signature, 0) || header.nextHeaderOffset >= offsetLimit
        || header.nextHeaderSize == 0 || header.nextHeaderSize >= sizeLimit)
        return std::nullopt;
    const std::uint64_t size = sizeof header + header.nextHeaderOffset + header.nextHeaderSize;
    return candidate.fits(size) ? Found(candidate.found(size, "7z")) : std::nullopt;
}

} // namespace Formats
