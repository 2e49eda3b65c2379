#include "VintrelCore/Carving/Formats/Formats.h"

// ITU-T T.81, Annex B: marker segments and entropy-coded data.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 209'715'198; // 200 MiB - 2: no marker counts from here on

enum Marker : std::uint8_t {
    temporary = 0x01,
    firstFrame = 0xC0, // to lastFrame, the three in between that are no frames left out
    huffmanTables = 0xC4,
    reserved = 0xC8,
    arithmeticConditioning = 0xCC,
    lastFrame = 0xCF,
    firstRestart = 0xD0,
    lastRestart = 0xD7,
    startOfImage = 0xD8,
    endOfImage = 0xD9,
    startOfScan = 0xDA,
    app1 = 0xE1,
    fill = 0xFF,
};

bool isRestart(std::uint8_t marker) { return marker >= firstRestart && marker <= lastRestart; }

bool isFrame(std::uint8_t marker)
{
    return marker >= firstFrame && marker <= lastFrame && marker != huffmanTables
        && marker != reserved && marker != arithmeticConditioning;
}

/// Where the marker behind the entropy-coded data at `position` lies: at an FF that neither
/// stuffing nor a restart follows.
std::optional<std::uint64_t> endOfScan(RandomReader& file, std::uint64_t position)
{
    while (const auto escape = file.find(fill, position, limit)) {
        const auto next = file.u8(*escape + 1);
        if (next != 0 && !isRestart(next))
            return escape;
        position = *escape + 2;
    }
    return std::nullopt;
}

} // namespace

Found jpeg(const Candidate& candidate)
{
    auto& file = candidate.file;
    bool hasFrame = false;
    bool hasScan = false;
    std::optional<Date> date;
    for (std::uint64_t position = 2; position < limit && candidate.fits(position + 2);) {
        if (file.u8(position) != fill)
            return std::nullopt;
        const auto marker = file.u8(position + 1);
        if (marker == fill) { // padding in front of a marker
            ++position;
            continue;
        }
        position += 2;
        if (marker == endOfImage) {
            if (!hasFrame || !hasScan)
                return std::nullopt;
            auto found = candidate.proved(position, "jpg");
            found.date = date;
            return found;
        }
        if (marker == 0 || marker == startOfImage)
            return std::nullopt;
        if (isRestart(marker) || marker == temporary)
            continue;

        const std::uint64_t length = file.u16be(position); // its own two bytes included
        if (length < 2)
            return std::nullopt;
        hasFrame |= isFrame(marker);
        constexpr std::uint64_t exifHeader
            = 2 + 6; // the length, and "Exif" with two zeros (Exif 2.3)
        if (marker == app1 && length > exifHeader && file.matches(position + 2, "Exif") && !date)
            date = exifDate(
                file.bytes(position + exifHeader, static_cast<std::size_t>(length - exifHeader)));
        position += length;
        if (marker == startOfScan) {
            hasScan = true;
            const auto end = endOfScan(file, position);
            if (!end)
                return std::nullopt;
            position = *end;
        }
    }
    return std::nullopt;
}

} // namespace Formats
