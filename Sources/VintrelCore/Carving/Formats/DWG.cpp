#include "VintrelCore/Carving/Formats/DWG.h"

#include "VintrelCore/Carving/Formats/Stretches.h"
#include "VintrelCore/Foundation/CRC16.h"

#include <algorithm>
#include <array>

// "Open Design Specification for .dwg files" 5.4 (Open Design Alliance). Versions R13 to 2000 have
// a table of sections in front, and a map behind the objects that says where each of them lies.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;

struct Section {
    std::uint8_t number; // 0
    LE32 offset, size;   // 1, 5

    std::uint64_t end() const { return std::uint64_t { offset } + size; }
};
static_assert(sizeof(Section) == 9);

using Sentinel = std::array<std::uint8_t, 16>;

constexpr Sentinel behindTable { 0x95, 0xA0, 0x4E, 0x28, 0x99, 0x82, 0x1A, 0xE5, 0x5E, 0x41, 0xE0,
    0x5F, 0x9D, 0x3A, 0x4D, 0x00 };
constexpr Sentinel beforeVariables { 0xCF, 0x7B, 0x1F, 0x23, 0xFD, 0xDE, 0x38, 0xA9, 0x5F, 0x7C,
    0x68, 0xB8, 0x4E, 0x6D, 0x33, 0x5F };
constexpr Sentinel beforePreview { 0x1F, 0x25, 0x6D, 0x07, 0xD4, 0x36, 0x28, 0x28, 0x9D, 0x57, 0xCA,
    0x3F, 0x9D, 0x44, 0x10, 0x2B };
constexpr Sentinel behindPreview { 0xE0, 0xDA, 0x92, 0xF8, 0x2B, 0xC9, 0xD7, 0xD7, 0x62, 0xA8, 0x35,
    0xC0, 0x62, 0xBB, 0xEF, 0xD4 };
constexpr Sentinel beforeSecondHeader { 0xD4, 0x7B, 0x21, 0xCE, 0x28, 0x93, 0x9F, 0xBF, 0x53, 0x24,
    0x40, 0x09, 0x12, 0x3C, 0xAA, 0x01 };
constexpr Sentinel behindSecondHeader { 0x2B, 0x84, 0xDE, 0x31, 0xD7, 0x6C, 0x60, 0x40, 0xAC, 0xDB,
    0xBF, 0xF6, 0xED, 0xC3, 0x55, 0xFE };

constexpr std::uint16_t sumStart = 0xC0C1;

bool hasSentinel(RandomReader& file, std::uint64_t position, const Sentinel& sentinel)
{
    return file.load<Sentinel>(position) == sentinel;
}

/// The sections that the table in front names; empty when its sum or the mark behind it is wrong.
std::vector<Section> sectionsOf(RandomReader& file)
{
    constexpr std::uint64_t table = 25;
    constexpr std::uint32_t maxSections = 16;
    const auto count = file.u32le(table - sizeof(LE32));
    if (count == 0 || count > maxSections)
        return {};
    const std::uint64_t end = table + count * sizeof(Section);
    const auto head = file.bytes(0, static_cast<std::size_t>(end));
    if (crc16(sumStart, head) != file.u16le(end)
        || !hasSentinel(file, end + sizeof(LE16), behindTable))
        return {};
    std::vector<Section> sections(count);
    for (std::uint32_t i = 0; i < count; ++i)
        sections[i] = file.load<Section>(table + i * sizeof(Section));
    return sections;
}

/// Behind the preview that the header names; 0 when it has none there.
std::uint64_t behindPreviewOf(RandomReader& file)
{
    const std::uint64_t preview = file.u32le(13);
    if (!hasSentinel(file, preview, beforePreview))
        return 0;
    const auto size = file.u32le(preview + sizeof(Sentinel));
    const std::uint64_t last = preview + sizeof(Sentinel) + sizeof(LE32) + size;
    return hasSentinel(file, last, behindPreview) ? last + sizeof(Sentinel) : 0;
}

/// Behind the second header, when one begins at `end`; else `end`.
std::uint64_t behindSecondHeaderAt(RandomReader& file, std::uint64_t end)
{
    constexpr std::uint64_t maxSize = 1'024;
    if (!hasSentinel(file, end, beforeSecondHeader))
        return end;
    const std::string_view mark(
        reinterpret_cast<const char*>(behindSecondHeader.data()), behindSecondHeader.size());
    const auto last = file.find(mark, end, end + maxSize);
    return last ? *last + sizeof(Sentinel) : end;
}

/// A page of the object map: pairs of numbers of seven bits in each byte, the lowest ones first.
class MapPage {
public:
    explicit MapPage(ByteView bytes)
        : bytes_(bytes)
    {
    }

    bool isAtEnd() const { return position_ >= bytes_.size(); }
    void skip() { next(); }
    /// A number whose last byte also holds its sign.
    std::int64_t nextSigned()
    {
        const auto number = next();
        const auto sign = std::uint64_t { 0x40 } << shiftOfLast_;
        const auto size = static_cast<std::int64_t>(number & ~sign);
        return (number & sign) != 0 ? -size : size;
    }

private:
    std::uint64_t next()
    {
        constexpr unsigned bits = 7;
        constexpr unsigned maxShift = 49;
        std::uint64_t number = 0;
        for (unsigned shift = 0; shift <= maxShift; shift += bits) {
            const auto byte = isAtEnd() ? std::uint8_t { 0 } : bytes_.span()[position_++];
            number |= std::uint64_t { byte & 0x7FU } << shift;
            shiftOfLast_ = shift;
            if ((byte & 0x80) == 0)
                break;
        }
        return number;
    }

    ByteView bytes_;
    std::size_t position_ = 0;
    unsigned shiftOfLast_ = 0;
};

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

/// Whether all objects are whole that a page of the map names.
bool holdsObjectsOfPage(RandomReader& file, ByteView page, std::uint64_t end)
{
    std::int64_t object = 0;
    for (MapPage pairs(page); !pairs.isAtEnd();) {
        pairs.skip(); // the object's handle
        object += pairs.nextSigned();
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
    if (sections.size() <= objectMap
        || !hasSentinel(file, sections[variables].offset, beforeVariables))
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
