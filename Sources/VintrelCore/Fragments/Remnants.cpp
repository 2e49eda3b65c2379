#include "VintrelCore/Fragments/Remnants.h"

#include "VintrelCore/Content/Formats/ISOBoxes.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Foundation/Rounding.h"
#include "VintrelCore/Fragments/Kinds.h"

#include <algorithm>
#include <array>
#include <bit>
#include <optional>

// ITU-T T.81, Annex B: marker segments; W3C "Portable Network Graphics (PNG) Specification":
// chunks; ISO/IEC 14496-12, boxes; RFC 8794, elements of unknown size; RFC 3533, pages.

namespace Fragments {

namespace {

using Content::isAt;

constexpr std::uint64_t sector = 512;

Content::Finding follow(std::string_view extension, PiecedBytes& file)
{
    const auto checker = Content::checkerFor(extension);
    checker->advance(file);
    return checker->finding();
}

/// A segment of a JPEG file that has a length.
struct Segment {
    std::uint8_t marker = 0;
    ByteRange data; ///< behind the length
};

/// The segments up to the first scan's head. Empty where they do not lead to one.
std::vector<Segment> segmentsOf(PiecedBytes& file)
{
    constexpr int maxSegments = 1000;
    constexpr std::uint8_t fill = 0xFF, startOfScan = 0xDA;
    std::vector<Segment> segments;
    std::uint64_t position = 2;
    for (int count = 0; count < maxSegments; ++count) {
        const auto head = Content::load<std::array<std::uint8_t, 4>>(file, position);
        if (!head || (*head)[0] != fill)
            break;
        const auto marker = (*head)[1];
        const auto length = ByteView(*head).u16be(2);
        if (marker == fill) { // padding in front of a marker
            ++position;
            continue;
        }
        segments.push_back({ marker, { position + 4, position + 2 + length } });
        if (marker == startOfScan)
            return segments;
        position += std::uint64_t { 2 } + length;
    }
    return {};
}

bool isFrame(const Segment& segment)
{
    constexpr std::uint8_t first = 0xC0, last = 0xC2; // sequential and progressive
    return segment.marker >= first && segment.marker <= last;
}

/// Where the last sector ends that may belong to the picture; none without a frame and a scan.
std::optional<std::uint64_t> endOfPicture(PiecedBytes& file)
{
    const auto segments = segmentsOf(file);
    if (std::ranges::none_of(segments, isFrame))
        return std::nullopt;
    const auto finding = follow("jpg", file);
    const auto reached = roundDown(finding.brokenAt.value_or(file.size()), sector);
    auto end = roundDown(finding.firm, sector);
    while (end < reached && looksCompressed(file.stretch(end, sector)))
        end += sector;
    return end > segments.back().data.end + sector ? std::optional(end) : std::nullopt;
}

/// Behind the last chunk whose checksum is right; none before any of the picture.
std::optional<std::uint64_t> endOfChunks(PiecedBytes& file)
{
    constexpr std::uint64_t signature = 8;
    constexpr std::uint64_t frame = 12; // length, type and checksum
    const auto firm = follow("png", file).firm;
    bool hasData = false;
    auto end = signature;
    while (const auto length = Content::load<BE32>(file, end)) {
        const auto next = end + frame + *length;
        if (next > firm)
            break;
        hasData |= isAt(file, end + 4, "IDAT");
        end = next;
    }
    return hasData ? std::optional(end) : std::nullopt;
}

/// Where the first long stretch of zeros from `position` on begins, or else the file ends.
std::uint64_t endOfData(PiecedBytes& file, std::uint64_t position)
{
    while (position < file.size()) {
        const auto bytes = Content::bytesAt(file, position, BlockCache::blockSize);
        if (std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; }))
            return position;
        position += bytes.size();
    }
    return file.size();
}

/// The end of a film whose media data no index follows or precedes.
std::optional<std::uint64_t> endOfFilm(PiecedBytes& file)
{
    using Content::Formats::ISOBox;
    constexpr int maxBoxes = 16;
    std::uint64_t position = 0;
    for (int count = 0; count < maxBoxes && isAt(file, 4, "ftyp"); ++count) {
        if (isAt(file, position + 4, "moov") || isAt(file, position + 4, "moof"))
            break;
        const auto box = ISOBox::at(file, position);
        if (isAt(file, position + 4, "mdat")) {
            const auto data = position + ISOBox::maxHeaderSize;
            // The length is written last; before, it says nothing or only what a header takes.
            const auto declared = box && box->end() > data ? box->end() : file.size();
            const auto end = std::min(endOfData(file, data), declared);
            return end >= data + sector ? std::optional(end) : std::nullopt;
        }
        if (!box)
            break;
        position = box->end();
    }
    return std::nullopt;
}

/// Whether a segment of Matroska does not say how long it is.
bool isSegmentUnsized(PiecedBytes& file)
{
    constexpr std::size_t headSize = 4096;
    constexpr std::array<std::uint8_t, 4> segment { 0x18, 0x53, 0x80, 0x67 };
    const auto bytes = Content::bytesAt(file, 0, headSize);
    const ByteView head(bytes);
    const auto found = head.firstIndex(segment, 0);
    if (!found)
        return false;
    const auto at = *found + static_cast<std::int64_t>(segment.size());
    const int width = std::countl_zero(head.u8(at)) + 1;
    if (width > 8)
        return false;
    const auto unsized = (std::uint64_t { 1 } << 7 * width) - 1;
    return (head.u64be(at) >> (64 - 8 * width) & unsized) == unsized;
}

std::optional<std::uint64_t> endOfClusters(PiecedBytes& file)
{
    constexpr std::uint64_t least = 1024; // the head alone shows nothing
    const auto end = isSegmentUnsized(file) ? follow("mkv", file).checked : 0;
    return end >= least ? std::optional(end) : std::nullopt;
}

std::optional<std::uint64_t> endOfPages(PiecedBytes& file)
{
    constexpr std::uint64_t least = 1024;
    const auto end = follow("ogg", file).firm;
    return end >= least ? std::optional(end) : std::nullopt;
}

struct Kind {
    std::string_view extension;
    std::optional<std::uint64_t> (*endOf)(PiecedBytes&);
    Remnant remnant;
};

constexpr Kind kinds[] = {
    { "jpg", endOfPicture, Remnant::brokenOff },
    { "png", endOfChunks, Remnant::brokenOff },
    { "mp4", endOfFilm, Remnant::unclosed },
    { "mov", endOfFilm, Remnant::unclosed },
    { "mkv", endOfClusters, Remnant::unclosed },
    { "ogg", endOfPages, Remnant::unclosed },
};

CarvedFile remnant(ByteRange place, std::string_view extension, Remnant why)
{
    CarvedFile file;
    file.offset = place.start;
    file.size = place.end - place.start;
    file.ext = extension;
    file.exact = why == Remnant::thumbnail;
    file.remnant = why;
    return file;
}

} // namespace

std::vector<CarvedFile> remnantsOf(
    std::string_view extension, const ByteRange& piece, BlockCache& cache)
{
    const auto* const kind = std::ranges::find(kinds, extension, &Kind::extension);
    if (kind == std::end(kinds))
        return {};
    PiecedBytes file(cache, { piece });
    file.growToEnd();
    const auto end = kind->endOf(file);
    if (!end)
        return {};
    return { remnant({ piece.start, piece.start + *end }, extension, kind->remnant) };
}

std::vector<CarvedFile> thumbnailsOf(const ByteRange& piece, BlockCache& cache)
{
    constexpr std::uint8_t app1 = 0xE1;
    constexpr std::array<std::uint8_t, 3> beginning { 0xFF, 0xD8, 0xFF };
    PiecedBytes photo(cache, { piece });
    photo.growToEnd();
    for (const auto& [marker, data] : segmentsOf(photo)) {
        if (marker != app1 || !isAt(photo, data.start, "Exif"))
            continue;
        const auto bytes
            = Content::bytesAt(photo, data.start, static_cast<std::size_t>(data.end - data.start));
        const auto at = ByteView(bytes).firstIndex(beginning, 0);
        if (!at)
            continue;
        const auto start = piece.start + data.start + static_cast<std::uint64_t>(*at);
        PiecedBytes file(cache, { { start, piece.start + data.end } });
        file.growToEnd();
        const auto finding = follow("jpg", file);
        if (finding.isComplete())
            return { remnant({ start, start + *finding.length }, "jpg", Remnant::thumbnail) };
    }
    return {};
}

} // namespace Fragments
