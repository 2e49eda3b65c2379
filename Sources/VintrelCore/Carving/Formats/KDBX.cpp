#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// The format of KeePass 2 (KDBX 4), which its makers describe in text: fields of a header, two sums
// of it, and blocks of encrypted data that each say their length. KDBX 3 has no such blocks outside
// of what is encrypted, so that nothing tells where it ends.

namespace Formats {

namespace {

struct FileHeader {
    LE32 signature1, signature2;     // 0, 4
    LE16 versionMinor, versionMajor; // 8, 10
};
static_assert(sizeof(FileHeader) == 12);

struct FieldHeader {
    std::uint8_t id; // 0
    LE32 size;       // 1
};
static_assert(sizeof(FieldHeader) == 5);

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

/// Where the fields end; none when there is no end of them.
std::optional<std::uint64_t> behindFields(RandomReader& file)
{
    constexpr std::uint8_t lastField = 0;
    constexpr std::uint8_t maxID = 12;
    std::uint64_t position = sizeof(FileHeader);
    for (int count = 0; count < maxFields; ++count) {
        const auto field = file.load<FieldHeader>(position);
        if (field.id > maxID || field.size > maxField)
            break;
        position += sizeof field + field.size;
        if (field.id == lastField)
            return position;
    }
    return std::nullopt;
}

} // namespace

Found kdbx(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<FileHeader>(0);
    const auto fields = header.signature2 == signature2 && header.versionMajor == 4
        ? behindFields(file)
        : std::nullopt;
    if (!fields)
        return std::nullopt;
    std::uint64_t position = *fields + headerSums;
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
