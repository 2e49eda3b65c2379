#include "VintrelCore/Carving/Formats/DWG.h"
#include "VintrelCore/Carving/Formats/Stretches.h"
#include "VintrelCore/Foundation/CRC32.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>
#include <cstddef>

// "Open Design Specification for .dwg files" 5.4 (Open Design Alliance). Versions from 2004 on
// consist of pages, and repeat their header at the end. That of 2007 packs its header in a way of
// its own and is not followed.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;

struct Header {
    std::array<std::uint8_t, 12> identifier; //   0  "AcFssFcAJMB", zero
    std::array<std::uint8_t, 40> pages;      //  12
    LE64 copy;                               //  52  of this header, at the end of the file
    std::array<std::uint8_t, 44> tables;     //  60
    LE32 sum;                                // 104  of the whole with zeros here
};
static_assert(sizeof(Header) == 108 && offsetof(Header, sum) == 104);

using HeaderBytes = std::array<std::uint8_t, sizeof(Header)>;

constexpr std::uint64_t headerOffset = 128;
constexpr std::uint64_t firstPage = 256;
constexpr std::uint64_t pageUnit = 32;

/// What the header is mixed with: the series of a simple generator of random numbers.
constexpr auto headerMask = [] {
    HeaderBytes mask {};
    std::uint32_t state = 1;
    for (auto& byte : mask) {
        state = state * 0x343FD + 0x269EC3;
        byte = static_cast<std::uint8_t>(state >> 16);
    }
    return mask;
}();

/// The header behind its mask; none when its sum is wrong.
std::optional<Header> headerOf(HeaderBytes bytes)
{
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] ^= headerMask[i];
    const auto header = std::bit_cast<Header>(bytes);
    std::fill_n(bytes.begin() + offsetof(Header, sum), sizeof(LE32), std::uint8_t { 0 });
    CRC32 sum;
    sum.add(bytes);
    return ByteView(header.identifier).matches("AcFssFcAJMB", 0) && sum.value() == header.sum
        ? std::optional(header)
        : std::nullopt;
}

/// Adler-32 (RFC 1950), but beginning with zero.
class PageSum {
public:
    void add(ByteView bytes)
    {
        constexpr std::uint32_t modulus = 65'521;
        constexpr std::size_t mostBytes = 5'552; // before a sum could overflow
        for (auto rest = bytes.span(); !rest.empty();) {
            const auto part = rest.first(std::min(rest.size(), mostBytes));
            for (const auto byte : part) {
                low_ += byte;
                high_ += low_;
            }
            low_ %= modulus;
            high_ %= modulus;
            rest = rest.subspan(part.size());
        }
    }
    std::uint32_t value() const { return high_ << 16 | low_; }

private:
    std::uint32_t low_ = 0;
    std::uint32_t high_ = 0;
};

/// Adds the `size` bytes from `position` on.
void add(PageSum& sum, RandomReader& file, std::uint64_t position, std::uint32_t size)
{
    forEachStretch(file, position, size, [&](ByteView bytes) { sum.add(bytes); });
}

/// Behind the page of a map of pages or sections; none when there is no sound one.
std::optional<std::uint64_t> behindMap(RandomReader& file, std::uint64_t position)
{
    struct MapHeader {
        LE32 type, unpackedSize, size, packing, sum; // 0, 4, 8, 12, 16
    };
    constexpr std::uint32_t pageMap = 0x4163'0E3B;
    constexpr std::uint32_t sectionMap = 0x4163'003B;
    auto header = file.load<MapHeader>(position);
    if (header.type != pageMap && header.type != sectionMap)
        return std::nullopt;
    const std::uint32_t expected = header.sum;
    header.sum = 0;
    PageSum sum;
    sum.add(std::bit_cast<std::array<std::uint8_t, sizeof header>>(header));
    add(sum, file, position + sizeof header, header.size);
    return sum.value() == expected ? std::optional(position + sizeof header + header.size)
                                   : std::nullopt;
}

/// Behind the page of a section, whose header is mixed with its own place; none when there is no
/// sound one.
std::optional<std::uint64_t> behindPage(RandomReader& file, std::uint64_t position)
{
    enum Field : std::size_t { type, section, size, pageSize, place, placeHigh, headerSum, sum };
    constexpr std::uint32_t page = 0x4163'043B;
    constexpr std::uint32_t mixer = 0x4164'536B;
    const auto mask = mixer ^ static_cast<std::uint32_t>(position);
    const auto stored = file.load<std::array<LE32, 8>>(position);
    const auto field = [&](Field number) { return stored[number] ^ mask; };
    if (field(type) != page)
        return std::nullopt;
    PageSum body;
    add(body, file, position + sizeof stored, field(size));
    return body.value() == field(sum) ? std::optional(position + sizeof stored + field(size))
                                      : std::nullopt;
}

/// Whether nothing but sound pages lies between the header and its copy.
bool consistsOfPages(RandomReader& file, std::uint64_t copy)
{
    std::uint64_t position = firstPage;
    while (position < copy) {
        auto next = behindPage(file, position);
        if (!next)
            next = behindMap(file, position);
        if (!next || *next > copy)
            return false;
        position = unitsFor(*next, pageUnit) * pageUnit;
    }
    return !file.isExhausted();
}

} // namespace

Found pagedDWG(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto bytes = file.load<HeaderBytes>(headerOffset);
    const auto header = headerOf(bytes);
    if (!header || header->copy < firstPage || header->copy >= limit)
        return std::nullopt;
    const std::uint64_t end = header->copy + sizeof(Header);
    if (!candidate.fits(end))
        return std::nullopt;
    const bool isRepeated = file.load<HeaderBytes>(header->copy) == bytes;
    return candidate.found(end, "dwg", isRepeated && consistsOfPages(file, header->copy));
}

} // namespace Formats
