#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// The format of KeePass 2 (KDBX 4), which its makers describe in text: fields of a header, two sums
// of it, and blocks of encrypted data that each say their length. KDBX 3 has no such blocks outside
// of what is encrypted: it ends at the latest where bytes lie that no cipher gives.

namespace Formats {

namespace {

struct FileHeader {
    LE32 signature1, signature2;     // 0, 4
    LE16 versionMinor, versionMajor; // 8, 10
};
static_assert(sizeof(FileHeader) == 12);

/// `Size`: LE32, in KDBX 3 LE16.
template <class Size> struct FieldHeader {
    std::uint8_t id; // 0
    Size size;       // 1
};
static_assert(sizeof(FieldHeader<LE32>) == 5 && sizeof(FieldHeader<LE16>) == 3);

struct BlockHeader {
    std::array<std::uint8_t, 32> sum; //  0
    LE32 size;                        // 32  zero in the last one
};
static_assert(sizeof(BlockHeader) == 36 && offsetof(BlockHeader, size) == 32);

constexpr std::uint32_t signature2 = 0xB54B'FB67;
constexpr std::uint32_t maxField = 65'536;
constexpr std::uint32_t maxBlock = 16'777'216;
constexpr int maxFields = 64;
constexpr int maxBlocks = 1'000'000;
constexpr std::uint64_t headerSums = 64; // SHA-256 and HMAC-SHA-256

/// Where the fields end, and which of them there are, a bit for each.
struct Fields {
    std::uint64_t end;
    unsigned ids;
};

/// None when there is no end of them.
template <class Size> std::optional<Fields> fieldsOf(RandomReader& file)
{
    constexpr std::uint8_t lastField = 0;
    constexpr std::uint8_t maxID = 12;
    Fields fields { sizeof(FileHeader), 0 };
    for (int count = 0; count < maxFields; ++count) {
        const auto field = file.load<FieldHeader<Size>>(fields.end);
        if (field.id > maxID || field.size > maxField)
            break;
        fields.end += sizeof field + field.size;
        fields.ids |= 1U << field.id;
        if (field.id == lastField)
            return fields;
    }
    return std::nullopt;
}

/// The first block of the cipher from `position` on whose bytes are all the same, or the end of the
/// source.
std::uint64_t behindCipher(RandomReader& file, std::uint64_t position)
{
    constexpr std::size_t blockSize = 16;
    constexpr std::size_t chunkSize = 4096;
    constexpr std::uint64_t longest = 67'108'864;
    const auto limit = std::min(file.size(), position + longest);
    for (; position < limit && !file.isExhausted(); position += chunkSize) {
        const auto bytes = file.bytes(position, chunkSize); // zeros past the end
        for (std::size_t at = 0; at < chunkSize; at += blockSize) {
            const auto block = std::span(bytes).subspan(at, blockSize);
            if (std::ranges::all_of(block, [&](auto byte) { return byte == block.front(); }))
                return std::min(position + at, limit);
        }
    }
    return limit;
}

/// The estimate of a KDBX 3 file: all up to the next find, or to what is not encrypted.
Found withoutBlocks(const Candidate& candidate)
{
    constexpr unsigned needed = 1U << 2 | 1U << 4 | 1U << 5 | 1U << 7 | 1U << 9; // cipher, seeds …
    const auto fields = fieldsOf<LE16>(candidate.file);
    if (!fields || (fields->ids & needed) != needed)
        return std::nullopt;
    const auto end = behindCipher(candidate.file, fields->end);
    if (end == fields->end)
        return std::nullopt;
    auto found = candidate.found(end, "kdbx");
    found.exact = false;
    found.isOpenEnded = true;
    return found;
}

} // namespace

Found kdbx(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<FileHeader>(0);
    if (header.signature2 == signature2 && header.versionMajor == 3)
        return withoutBlocks(candidate);
    const auto fields = header.signature2 == signature2 && header.versionMajor == 4
        ? fieldsOf<LE32>(file)
        : std::nullopt;
    if (!fields)
        return std::nullopt;
    std::uint64_t position = fields->end + headerSums;
    for (int count = 0; count < maxBlocks && candidate.fits(position + sizeof(BlockHeader));
         ++count) {
        const auto block = file.load<BlockHeader>(position);
        if (block.size > maxBlock)
            break;
        position += sizeof block + block.size;
        if (block.size == 0)
            return count > 0 ? Found(candidate.proved(position, "kdbx")) : std::nullopt;
    }
    return std::nullopt;
}

} // namespace Formats
