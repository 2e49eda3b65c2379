#include "VintrelCore/Carving/Formats/DWG.h"

#include "VintrelCore/Carving/Formats/SevenBits.h"
#include "VintrelCore/Carving/Formats/Stretches.h"
#include "VintrelCore/Foundation/CRC16.h"

#include <algorithm>
#include <array>
#include <cstddef>

// "Open Design Specification for .dwg files" 5.4 (Open Design Alliance). Versions R13 to 2000 have
// a table of sections in front, and a map behind the objects that says where each of them lies.

using namespace std::string_view_literals;

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;

struct Header {
    std::array<std::uint8_t, 6> version; //  0  "AC1015" and others
    std::array<std::uint8_t, 7> release; //  6
    LE32 preview;                        // 13  where it begins
    LE16 writer, codePage;               // 17, 19
    LE32 sectionCount;                   // 21  of the table behind it
};
static_assert(sizeof(Header) == 25 && offsetof(Header, sectionCount) == 21);

struct Section {
    std::uint8_t number; // 0
    LE32 offset, size;   // 1, 5

    std::uint64_t end() const { return std::uint64_t { offset } + size; }
};
static_assert(sizeof(Section) == 9);

/// The marks between the parts, which are random numbers.
constexpr std::uint64_t sentinelSize = 16;

constexpr auto behindTable = "\x95\xA0\x4E\x28\x99\x82\x1A\xE5\x5E\x41\xE0\x5F\x9D\x3A\x4D\x00"sv;
constexpr auto beforeVariables
    = "\xCF\x7B\x1F\x23\xFD\xDE\x38\xA9\x5F\x7C\x68\xB8\x4E\x6D\x33\x5F"sv;
constexpr auto beforePreview = "\x1F\x25\x6D\x07\xD4\x36\x28\x28\x9D\x57\xCA\x3F\x9D\x44\x10\x2B"sv;
constexpr auto behindPreview = "\xE0\xDA\x92\xF8\x2B\xC9\xD7\xD7\x62\xA8\x35\xC0\x62\xBB\xEF\xD4"sv;
constexpr auto beforeSecondHeader
    = "\xD4\x7B\x21\xCE\x28\x93\x9F\xBF\x53\x24\x40\x09\x12\x3C\xAA\x01"sv;
constexpr auto behindSecondHeader
    = "\x2B\x84\xDE\x31\xD7\x6C\x60\x40\xAC\xDB\xBF\xF6\xED\xC3\x55\xFE"sv;

constexpr std::uint16_t sumStart = 0xC0C1;

/// The sections that the table in front names; empty when its sum or the mark behind it is wrong.
std::vector<Section> sectionsOf(RandomReader& file)
{
    constexpr std::uint64_t table = sizeof(Header);
    constexpr std::uint32_t maxSections = 16;
    const std::uint32_t count = file.load<Header>(0).sectionCount;
    if (count == 0 || count > maxSections)
        return {};
    const std::uint64_t end = table + count * sizeof(Section);
    const auto head = file.bytes(0, static_cast<std::size_t>(end));
    if (crc16(sumStart, head) != file.u16le(end) || !file.matches(end + sizeof(LE16), behindTable))
        return {};
    std::vector<Section> sections(count);
    for (std::uint32_t i = 0; i < count; ++i)
        sections[i] = file.load<Section>(table + i * sizeof(Section));
    return sections;
}

/// Behind the preview that the header names; 0 when it has none there.
std::uint64_t behindPreviewOf(RandomReader& file)
{
    const std::uint64_t preview = file.load<Header>(0).preview;
    if (!file.matches(preview, beforePreview))
        return 0;
    const auto size = file.u32le(preview + sentinelSize);
    const std::uint64_t last = preview + sentinelSize + sizeof(LE32) + size;
    return file.matches(last, behindPreview) ? last + sentinelSize : 0;
}

/// Behind the second header, when one begins at `end`; else `end`.
std::uint64_t behindSecondHeaderAt(RandomReader& file, std::uint64_t end)
{
    constexpr std::uint64_t maxSize = 1'024;
    if (!file.matches(end, beforeSecondHeader))
        return end;
    const auto last = file.find(behindSecondHeader, end, end + maxSize);
    return last ? *last + sentinelSize : end;
}

/// Whether the object at `position` ends in front of `end`, with the right sum.
bool isWholeObject(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    constexpr std::uint32_t more = 0x8000;
    std::uint64_t size = sizeof(LE16);
    std::uint64_t body = file.u16le(position);
    if (body >= more) {
        body = body - more + std::uint64_t { file.u16le(position + size) } * more;
        size += sizeof(LE16);
    }
    size += body;
    if (position + size + sizeof(LE16) > end)
        return false;
    auto sum = sumStart;
    forEachStretch(file, position, size, [&](ByteView bytes) { sum = crc16(sum, bytes); });
    return sum == file.u16le(position + size);
}

/// A number whose last byte also holds its sign, below the bit that ends it.
std::int64_t withSign(const SevenBits& number)
{
    const auto sign = std::uint64_t { 0x40 } << 7 * (number.bytes - 1);
    const auto size = static_cast<std::int64_t>(number.value & ~sign);
    return (number.value & sign) != 0 ? -size : size;
}

/// Whether all objects are whole that a page of the map names: by the steps of their handles and of
/// their places.
bool holdsObjectsOfPage(RandomReader& file, ByteView page, std::uint64_t end)
{
    std::int64_t object = 0;
    std::int64_t at = 0;
    const auto next = [&] { return page.u8(at++); };
    while (at < static_cast<std::int64_t>(page.size())) {
        readSevenBits(next); // the handle's
        object += withSign(readSevenBits(next));
        if (object <= 0 || object >= static_cast<std::int64_t>(limit)
            || !isWholeObject(file, static_cast<std::uint64_t>(object), end))
            return false;
    }
    return !file.isExhausted();
}

/// Whether every object is whole that the map names. Its last page is empty.
bool holdsObjects(RandomReader& file, const Section& map)
{
    std::uint64_t position = map.offset;
    std::uint64_t size = file.u16be(position);
    while (size > sizeof(BE16) && position + size + sizeof(BE16) < map.end()) {
        const auto page = file.bytes(position, static_cast<std::size_t>(size));
        const auto pairs = ByteView(page).sub(sizeof(BE16), static_cast<std::int64_t>(size));
        if (crc16(sumStart, page) != file.u16be(position + size)
            || !holdsObjectsOfPage(file, pairs, map.offset))
            return false;
        position += size + sizeof(BE16);
        size = file.u16be(position);
    }
    return position > map.offset && size == sizeof(BE16);
}

Found sectioned(const Candidate& candidate)
{
    constexpr std::size_t variables = 0;
    constexpr std::size_t objectMap = 2;
    auto& file = candidate.file;
    const auto sections = sectionsOf(file);
    if (sections.size() <= objectMap || !file.matches(sections[variables].offset, beforeVariables))
        return std::nullopt;
    auto end = behindPreviewOf(file);
    for (const auto& section : sections)
        end = std::max(end, section.end());
    end = behindSecondHeaderAt(file, end);
    if (!candidate.fits(end))
        return std::nullopt;
    return candidate.found(end, "dwg", holdsObjects(file, sections[objectMap]));
}

} // namespace

Found dwg(const Candidate& candidate)
{
    constexpr std::array<std::string_view, 3> sectionedVersions { "AC1012", "AC1014", "AC1015" };
    constexpr std::array<std::string_view, 4> pagedVersions { "AC1018", "AC1024", "AC1027",
        "AC1032" };
    const auto isVersion = [&](std::string_view name) { return candidate.file.matches(0, name); };
    if (std::ranges::any_of(sectionedVersions, isVersion))
        return sectioned(candidate);
    return std::ranges::any_of(pagedVersions, isVersion) ? pagedDWG(candidate) : std::nullopt;
}

} // namespace Formats
