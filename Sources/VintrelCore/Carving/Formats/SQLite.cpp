#include "VintrelCore/Carving/Formats/Formats.h"

#include <bit>
#include <cstddef>

// SQLite, "Database File Format", The Database Header.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 16> magic;   //  0
    BE16 pageSize;                        // 16  1 stands for 65536
    std::array<std::uint8_t, 6> unused1;  // 18
    BE32 changeCounter;                   // 24
    BE32 pageCount;                       // 28
    std::array<std::uint8_t, 60> unused2; // 32
    BE32 validFor;                        // 92  the change counter for which the page count holds
};
static_assert(sizeof(Header) == 96 && offsetof(Header, validFor) == 92);

/// What a page can begin with: the kind of a B-tree page, the number of the next page of a chain,
/// or a type of the pointer map. Pages that were freed keep what they were.
bool mayBeginPage(std::uint8_t byte) { return byte <= 5 || byte == 10 || byte == 13; }

bool isProved(RandomReader& file, std::uint64_t pageSize, std::uint64_t size)
{
    for (std::uint64_t page = pageSize; page < size && !file.isExhausted(); page += pageSize)
        if (!mayBeginPage(file.u8(page)))
            return false;
    return true;
}

} // namespace

Found sqlite(const Candidate& candidate)
{
    using namespace std::string_view_literals;
    const auto header = candidate.file.load<Header>(0);
    const std::uint32_t pageSize
        = header.pageSize == 1 ? 65'536u : std::uint32_t { header.pageSize };
    if (!ByteView(header.magic).matches("SQLite format 3\0"sv, 0) || pageSize < 512
        || !std::has_single_bit(pageSize) || header.pageCount == 0
        || header.changeCounter != header.validFor)
        return std::nullopt;
    const std::uint64_t size = std::uint64_t { pageSize } * header.pageCount;
    if (!candidate.fits(size))
        return std::nullopt;
    auto found = candidate.found(size, "sqlite");
    found.isProved = isProved(candidate.file, pageSize, size);
    return found;
}

} // namespace Formats
