#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/OggPage.h"

#include <algorithm>
#include <cstddef>

// RFC 3533, The Ogg page format.

namespace Formats {

namespace {

using namespace OggPage;

constexpr int maxPages = 10'000'000;
constexpr std::size_t maxStreams = 16;

std::uint64_t segmentsSize(RandomReader& file, std::uint64_t lengths, std::uint8_t count)
{
    std::array<std::uint8_t, 255> sizes;
    sizes = file.load<decltype(sizes)>(lengths);
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += sizes[i];
    return sum;
}

/// Whether the page in [from, to) is as it was written.
bool isSound(RandomReader& file, std::uint64_t from, std::uint64_t to)
{
    const auto page = file.bytes(from, static_cast<std::size_t>(to - from)); // 64 KiB at most
    file.addWork(page.size());
    return checksumOf(page) == ByteView(page).u32le(offsetof(Header, checksum));
}

const char* extension(RandomReader& file)
{
    const std::uint64_t firstPacket = sizeof(Header) + file.load<Header>(0).segments;
    if (file.matches(firstPacket, "OpusHead"))
        return "opus";
    if (file.matches(firstPacket, "\x80theora"))
        return "ogv";
    return "ogg";
}

} // namespace

Found ogg(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::vector<std::uint32_t> open; // logical streams that began and have not ended
    std::uint64_t position = 0;
    bool isProved = true;
    for (int page = 0; page < maxPages && candidate.fits(position + sizeof(Header)); ++page) {
        const auto header = file.load<Header>(position);
        if (!ByteView(header.magic).matches("OggS", 0) || header.version != 0)
            return std::nullopt;
        const std::uint32_t stream = header.stream;
        if ((header.flags & beginsStream) != 0 && std::ranges::count(open, stream) == 0)
            open.push_back(stream);
        if (open.empty()
            || open.size() > maxStreams) // empty: the first page does not begin a stream
            return std::nullopt;
        const std::uint64_t lengths = position + sizeof(Header);
        const std::uint64_t end
            = lengths + header.segments + segmentsSize(file, lengths, header.segments);
        isProved = isProved && isSound(file, position, end);
        position = end;
        if ((header.flags & endsStream) != 0)
            std::erase(open, stream);
        if (open.empty())
            return candidate.found(position, extension(file), isProved);
    }
    return std::nullopt;
}

} // namespace Formats
