#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/CRC32.h"

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

/// More than the header of any archive takes that people keep.
constexpr std::uint64_t maxCheckedHeader = 16'777'216;

/// Whether the header at the end of the archive is the one that its beginning speaks of.
bool isProved(RandomReader& file, const SignatureHeader& header)
{
    if (header.nextHeaderSize > maxCheckedHeader)
        return false;
    CRC32 checksum;
    checksum.add(file.bytes(sizeof header + header.nextHeaderOffset,
        static_cast<std::size_t>(std::uint64_t { header.nextHeaderSize })));
    return checksum.value() == header.nextHeaderChecksum;
}

} // namespace

Found sevenZip(const Candidate& candidate)
{
    const auto header = candidate.file.load<SignatureHeader>(0);
    if (!ByteView(header.signature).matches(signature, 0) || header.nextHeaderOffset >= offsetLimit
        || header.nextHeaderSize == 0 || header.nextHeaderSize >= sizeLimit)
        return std::nullopt;
    const std::uint64_t size = sizeof header + header.nextHeaderOffset + header.nextHeaderSize;
    if (!candidate.fits(size))
        return std::nullopt;
    auto found = candidate.found(size, "7z");
    found.isProved = isProved(candidate.file, header);
    return found;
}

} // namespace Formats
