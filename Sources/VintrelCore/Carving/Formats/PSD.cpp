#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// "Adobe Photoshop File Formats Specification", PSD and its large form PSB: sections that say their
// lengths, then the whole picture by its compression.

namespace Formats {

namespace {

struct Header {
    std::array<std::uint8_t, 4> signature; //  0  "8BPS"
    BE16 version;                          //  4  1, or 2 for the large form
    std::array<std::uint8_t, 6> reserved;  //  6  zero
    BE16 channels;                         // 12
    BE32 height, width;                    // 14, 18
    BE16 depth, mode;                      // 22, 24  bits of a sample

    bool isLarge() const { return version == 2; }
    std::uint64_t rows() const { return std::uint64_t { channels } * height; }
    std::uint64_t rowSize() const { return (std::uint64_t { width } * depth + 7) / 8; }
};
static_assert(sizeof(Header) == 26 && offsetof(Header, channels) == 12);

constexpr std::uint16_t maxChannels = 56;
constexpr std::uint32_t maxEdge = 300'000;
constexpr std::uint64_t limit = 34'359'738'368;

bool isSane(const Header& header)
{
    constexpr std::uint16_t depths[] = { 1, 8, 16, 32 };
    constexpr std::uint16_t maxMode = 9;
    return (header.version == 1 || header.isLarge()) && ByteView(header.reserved).isAllZero()
        && header.channels >= 1 && header.channels <= maxChannels && header.height >= 1
        && header.height <= maxEdge && header.width >= 1 && header.width <= maxEdge
        && std::ranges::count(depths, std::uint16_t { header.depth }) == 1
        && header.mode <= maxMode;
}

/// Where the picture begins, behind the colours, the resources and the layers; none when one of
/// these sections goes beyond the source.
std::optional<std::uint64_t> behindSections(RandomReader& file, const Header& header)
{
    constexpr int narrowSections = 2;
    std::uint64_t position = sizeof header;
    for (int section = 0; section < narrowSections; ++section)
        position += sizeof(BE32) + file.u32be(position);
    const bool isLarge = header.isLarge();
    const std::uint64_t layers = isLarge ? file.u64be(position) : file.u32be(position);
    position += isLarge ? sizeof(BE64) : sizeof(BE32);
    if (layers >= limit || position + layers >= file.size())
        return std::nullopt;
    return position + layers;
}

/// The length of all rows, whose lengths lie one behind the other at `position`.
std::uint64_t packedSize(RandomReader& file, std::uint64_t position, const Header& header)
{
    const std::uint64_t width = header.isLarge() ? sizeof(BE32) : sizeof(BE16);
    const std::uint64_t rows = header.rows();
    std::uint64_t sum = rows * width;
    for (std::uint64_t row = 0; row < rows && sum < limit && !file.isExhausted(); ++row) {
        const auto at = position + row * width;
        sum += header.isLarge() ? file.u32be(at) : file.u16be(at);
    }
    return sum;
}

} // namespace

Found psd(const Candidate& candidate)
{
    enum Compression : std::uint16_t { raw = 0, packBits = 1 };
    auto& file = candidate.file;
    const auto header = file.load<Header>(0);
    const auto picture = isSane(header) ? behindSections(file, header) : std::nullopt;
    if (!picture)
        return std::nullopt;
    const auto compression = file.u16be(*picture);
    const std::uint64_t data = *picture + sizeof(BE16);
    std::uint64_t end = 0;
    if (compression == raw)
        end = data + header.rows() * header.rowSize();
    else if (compression == packBits)
        end = data + packedSize(file, data, header);
    if (end == 0 || end >= limit)
        return std::nullopt;
    // What layers hold is not followed, and the picture's last rows would do in any place.
    return candidate.found(end, header.isLarge() ? "psb" : "psd");
}

} // namespace Formats
