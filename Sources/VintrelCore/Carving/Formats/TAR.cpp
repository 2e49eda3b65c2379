#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <bit>
#include <cstddef>

// IEEE Std 1003.1, "ustar Interchange Format", and what GNU tar made of it: headers of one block,
// each with the contents of its file behind it, and two blocks of zeros at the end.

namespace Formats {

namespace {

constexpr std::uint64_t blockSize = 512;
constexpr std::uint64_t recordSize = 10'240; // up to which programs fill the last blocks with zeros
constexpr std::uint64_t limit = std::uint64_t { 1 } << 42;
constexpr int maxMembers = 100'000'000;

struct Header {
    std::array<std::uint8_t, 100> name;     //   0
    std::array<std::uint8_t, 24> mode;      // 100  and owner and group
    std::array<std::uint8_t, 12> size;      // 124  octal; or a number of 95 bits
    std::array<std::uint8_t, 12> time;      // 136
    std::array<std::uint8_t, 8> checksum;   // 148  octal
    std::uint8_t type;                      // 156
    std::array<std::uint8_t, 100> linkName; // 157
    std::array<std::uint8_t, 5> magic;      // 257  "ustar"
    std::array<std::uint8_t, 250> others;   // 262
};
static_assert(sizeof(Header) == 512 && offsetof(Header, magic) == 257);

/// A field of octal digits, with blanks in front; none when it is something else. An empty one is
/// 0: the name of a whole archive has neither a size nor an owner.
std::optional<std::uint64_t> octal(std::span<const std::uint8_t> field)
{
    if (ByteView(field).isAllZero())
        return 0;
    std::uint64_t value = 0;
    bool hasDigits = false;
    for (const auto byte : field) {
        if (byte == ' ' && !hasDigits)
            continue;
        if (byte < '0' || byte > '7')
            return hasDigits && (byte == 0 || byte == ' ') ? std::optional(value) : std::nullopt;
        value = value << 3 | (byte - '0');
        hasDigits = true;
    }
    return value;
}

/// The size of a member, which GNU tar writes as a number where it takes more than eleven digits.
std::optional<std::uint64_t> sizeOf(const Header& header)
{
    constexpr std::uint8_t binary = 0x80;
    const ByteView field(header.size);
    return field.u8(0) == binary ? std::optional(field.u64be(4)) : octal(field.span());
}

/// Whether it says that it is a header, or is of the time before headers said so: a zero stands
/// there, and nothing but digits in front and behind.
bool hasMark(const Header& header)
{
    if (ByteView(header.magic).matches("ustar", 0))
        return true;
    const auto isNumber = [](std::uint8_t byte) {
        return (byte >= '0' && byte <= '7') || byte == ' ' || byte == 0;
    };
    return ByteView(header.magic).isAllZero() && std::ranges::all_of(header.mode, isNumber)
        && std::ranges::all_of(header.others, isNumber) && header.time[0] != 0;
}

/// Whether the header's sum is the stated one. Programs of some systems took bytes above ASCII for
/// negative numbers.
bool hasSum(const Header& header, std::uint64_t stated)
{
    constexpr std::uint64_t range = 256;
    const auto bytes = std::bit_cast<std::array<std::uint8_t, blockSize>>(header);
    std::uint64_t sum = header.checksum.size() * ' '; // what stood there when it was summed up
    std::uint64_t negative = 0;
    for (const auto byte : bytes) {
        sum += byte;
        negative += byte >= range / 2 ? range : 0;
    }
    for (const auto byte : header.checksum)
        sum -= byte;
    return stated == sum || stated == sum - negative;
}

bool isSound(const Header& header)
{
    const auto stated = octal(header.checksum);
    const ByteView bytes(header.name);
    if (!hasMark(header) || !stated || bytes.u8(0) == 0)
        return false;
    return hasSum(header, *stated);
}

/// Where the content of a member begins whose header is at `position`. GNU's own form of a sparse
/// member goes on with blocks that tell where its pieces lie, each of which says whether another
/// follows.
std::uint64_t behindHeader(RandomReader& file, std::uint64_t position, const Header& header)
{
    constexpr std::uint8_t sparse = 'S';
    constexpr std::uint64_t goesOnInHeader = 482;
    constexpr std::uint64_t goesOnInBlock = 504;
    constexpr int maxBlocks = 1'000'000;
    bool goesOn = header.type == sparse && file.u8(position + goesOnInHeader) != 0;
    position += blockSize;
    for (int count = 0; goesOn && count < maxBlocks && !file.isExhausted(); ++count) {
        goesOn = file.u8(position + goesOnInBlock) != 0;
        position += blockSize;
    }
    return position;
}

bool isZero(RandomReader& file, std::uint64_t position)
{
    return ByteView(file.load<std::array<std::uint8_t, blockSize>>(position)).isAllZero();
}

/// The end of the archive whose two blocks of zeros begin at `position`. Most programs go on with
/// zeros up to a whole record.
std::uint64_t behindZeros(RandomReader& file, std::uint64_t position)
{
    const std::uint64_t end = position + 2 * blockSize;
    const std::uint64_t wholeRecord = unitsFor(end, recordSize) * recordSize;
    if (wholeRecord > file.size())
        return end;
    for (std::uint64_t at = end; at < wholeRecord; at += blockSize)
        if (!isZero(file, at))
            return end;
    return wholeRecord;
}

} // namespace

Found tar(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (file.u8(offsetof(Header, magic)) != 'u' && file.u8(offsetof(Header, magic)) != 0)
        return std::nullopt;
    std::uint64_t position = 0;
    for (int count = 0; count < maxMembers && candidate.fits(position + blockSize); ++count) {
        const auto header = file.load<Header>(position);
        if (!isSound(header)) {
            const bool isEnd = count > 0 && isZero(file, position)
                && candidate.fits(position + 2 * blockSize) && isZero(file, position + blockSize);
            return isEnd ? Found(candidate.proved(behindZeros(file, position), "tar"))
                         : std::nullopt;
        }
        // Links, folders and devices have nothing behind them, whatever they say.
        const bool hasContent = header.type < '1' || header.type > '6';
        const auto size = sizeOf(header);
        if (!size || *size >= limit - position)
            return std::nullopt;
        position = behindHeader(file, position, header)
            + (hasContent ? unitsFor(*size, blockSize) * blockSize : 0);
    }
    return std::nullopt;
}

} // namespace Formats
