#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <cstddef>

// "XMP Specification Part 3: Storage in Files" (Adobe), InDesign: two master pages, of which the
// one that was written last says how many pages there are; behind them objects, each between a
// header and a trailer of its own. What the pages hold is published nowhere.

namespace Formats {

namespace {

using GUID = std::array<std::uint8_t, 16>;

constexpr GUID masterGUID { 0x06, 0x06, 0xED, 0xF5, 0xD8, 0x1D, 0x46, 0xE5, 0xBD, 0x31, 0xEF, 0xE7,
    0xFE, 0x74, 0xB7, 0x1D };
constexpr GUID headerGUID { 0xDE, 0x39, 0x39, 0x79, 0x51, 0x88, 0x4B, 0x6C, 0x8E, 0x63, 0xEE, 0xF8,
    0xAE, 0xE0, 0xDD, 0x38 };
constexpr GUID trailerGUID { 0xFD, 0xCE, 0xDB, 0x70, 0xF7, 0x86, 0x4B, 0x4F, 0xA4, 0xD3, 0xC7, 0x28,
    0xB3, 0x41, 0x71, 0x06 };

struct MasterPage {
    GUID guid;                            //   0
    std::array<std::uint8_t, 8> magic;    //  16  "DOCUMENT"; books and libraries have others
    std::array<std::uint8_t, 240> state;  //  24
    LE64 sequence;                        // 264  the higher one was written last
    std::array<std::uint8_t, 8> reserved; // 272
    LE32 pageCount;                       // 280
};
static_assert(sizeof(MasterPage) == 284 && offsetof(MasterPage, pageCount) == 280);

struct ObjectMark {
    GUID guid;                 //  0
    LE32 uid, classID, length; // 16, 20, 24  of the object between header and trailer
    LE32 checksum;             // 28
};
static_assert(sizeof(ObjectMark) == 32);

constexpr std::uint64_t pageSize = 4'096;
constexpr std::uint32_t masterPages = 2;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr int maxObjects = 1'000'000;

/// Behind the object whose header lies at `position`; none when there is no whole one.
std::optional<std::uint64_t> behindObject(RandomReader& file, std::uint64_t position)
{
    const auto header = file.load<ObjectMark>(position);
    if (header.guid != headerGUID)
        return std::nullopt;
    const std::uint64_t last = position + sizeof header + header.length;
    const auto trailer = file.load<ObjectMark>(last);
    return trailer.guid == trailerGUID && trailer.uid == header.uid
            && trailer.length == header.length
        ? std::optional(last + sizeof trailer)
        : std::nullopt;
}

} // namespace

Found indd(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = file.load<MasterPage>(0);
    const auto second = file.load<MasterPage>(pageSize);
    if (first.guid != masterGUID || second.guid != masterGUID || first.magic != second.magic
        || !ByteView(first.magic).matches("DOCUMENT", 0))
        return std::nullopt;
    const auto pages = first.sequence > second.sequence ? first.pageCount : second.pageCount;
    if (pages < masterPages)
        return std::nullopt;
    std::uint64_t end = pages * pageSize;
    auto next = behindObject(file, end);
    for (int count = 0; next && count < maxObjects && end < limit; ++count) {
        end = *next;
        next = behindObject(file, end);
    }
    auto document = candidate.found(unitsFor(end, pageSize) * pageSize, "indd");
    document.exact = file.load<GUID>(end) != headerGUID; // a damaged object goes on beyond it
    return candidate.fits(document.size) ? Found(document) : std::nullopt;
}

} // namespace Formats
