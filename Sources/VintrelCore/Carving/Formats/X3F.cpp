#include "VintrelCore/Carving/Formats/Formats.h"

#include <cstddef>

// "X3F file format" (Foveon): sections, and at the end a directory of them. The last four bytes say
// where it begins.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> magic;       // 0  "FOVb"
    LE16 minorVersion, majorVersion;         // 4, 6
    std::array<std::uint8_t, 16> identifier; // 8
};
static_assert(sizeof(Header) == 24);

struct Directory {
    std::array<std::uint8_t, 4> mark; // 0  "SECd"
    LE32 version, entryCount;         // 4, 8
};
static_assert(sizeof(Directory) == 12);

struct Entry {
    LE32 offset, length;              // 0, 4
    std::array<std::uint8_t, 4> type; // 8
};
static_assert(sizeof(Entry) == 12);

constexpr std::uint64_t maxSize = 1'073'741'824;
constexpr std::uint32_t maxEntries = 64;

/// The end of the file whose directory begins at `position`; none when it is another file's.
std::optional<std::uint64_t> behindDirectory(RandomReader& file, std::uint64_t position)
{
    const auto directory = file.load<Directory>(position);
    if (directory.entryCount == 0 || directory.entryCount > maxEntries)
        return std::nullopt;
    const std::uint64_t first = position + sizeof directory;
    const std::uint64_t end = first + std::uint64_t { directory.entryCount } * sizeof(Entry);
    if (file.u32le(end) != position)
        return std::nullopt;
    for (auto at = first; at < end; at += sizeof(Entry)) {
        const auto entry = file.load<Entry>(at);
        if (entry.length > position || entry.offset > position - entry.length
            || !file.matches(entry.offset, "SEC"))
            return std::nullopt;
    }
    return end + sizeof(LE32);
}

} // namespace

Found x3f(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    if (header.majorVersion < 2 || header.majorVersion > 4)
        return std::nullopt;
    std::uint64_t position = sizeof header;
    while (const auto mark = candidate.find(candidate.searches.x3fDirectories, position, maxSize)) {
        if (const auto end = behindDirectory(file, *mark); end && candidate.fits(*end))
            return candidate.proved(*end, "x3f");
        if (file.isExhausted())
            break;
        position = *mark + 1;
    }
    return std::nullopt;
}

} // namespace Formats
