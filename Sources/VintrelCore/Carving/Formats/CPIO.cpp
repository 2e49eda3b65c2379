#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <charconv>
#include <cstddef>

// cpio(5), New ASCII Format: headers of hexadecimal digits, each with a name and the contents of
// its file behind it. The last one is called "TRAILER!!!".

namespace Formats {

namespace {

using Field = std::array<char, 8>;

struct Header {
    std::array<char, 6> magic;    //  0  "070701", or "070702" with sums
    std::array<Field, 6> node;    //  6  number, mode, owner, links, time
    Field fileSize;               // 54
    std::array<Field, 4> devices; // 62
    Field nameSize;               // 94  its zero included
    Field checksum;               // 102
};
static_assert(sizeof(Header) == 110 && offsetof(Header, nameSize) == 94);

constexpr std::uint64_t unit = 4;
constexpr std::uint64_t blockSize = 512;
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr std::uint64_t maxName = 65'536;
constexpr std::string_view trailer { "TRAILER!!!\0", 11 };

std::uint64_t aligned(std::uint64_t position) { return unitsFor(position, unit) * unit; }

std::optional<std::uint32_t> number(const Field& field)
{
    std::uint32_t value = 0;
    const auto* const end = field.data() + field.size();
    const auto [last, error] = std::from_chars(field.data(), end, value, 16);
    return error == std::errc() && last == end ? std::optional(value) : std::nullopt;
}

/// Programs go on with zeros to the end of a block.
std::uint64_t behindZeros(RandomReader& file, std::uint64_t position)
{
    const std::uint64_t end = unitsFor(position, blockSize) * blockSize;
    if (end > file.size())
        return position;
    const auto rest = file.bytes(position, static_cast<std::size_t>(end - position));
    return ByteView(rest).isAllZero() ? end : position;
}

} // namespace

Found cpio(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 0;
    while (position < limit && candidate.fits(position + sizeof(Header))) {
        const auto header = file.load<Header>(position);
        const std::string_view magic(header.magic.data(), header.magic.size());
        const auto fileSize = number(header.fileSize);
        const auto nameSize = number(header.nameSize);
        if ((magic != "070701" && magic != "070702") || !fileSize || !nameSize || *nameSize == 0
            || *nameSize > maxName)
            break;
        const std::uint64_t name = position + sizeof header;
        position = aligned(aligned(name + *nameSize) + *fileSize);
        if (*nameSize == trailer.size() && file.matches(name, trailer))
            return candidate.proved(behindZeros(file, position), "cpio");
    }
    return std::nullopt;
}

} // namespace Formats
