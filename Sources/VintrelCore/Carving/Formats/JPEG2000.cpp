#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/ISOBoxes.h"

#include <algorithm>

// ISO/IEC 15444-1 (JPEG 2000): boxes, of which one holds a codestream, or a codestream alone. And
// ISO/IEC 18181-2 (JPEG XL), whose boxes are alike.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;
constexpr int maxBoxes = 100'000;
constexpr int maxMarkers = 1'000'000;

enum Marker : std::uint16_t {
    startOfCodestream = 0xFF4F,
    startOfTilePart = 0xFF90,
    endOfCodestream = 0xFFD9,
};

/// Where the codestream at `position` ends, by its tile parts; none when it does not.
std::optional<std::uint64_t> behindCodestream(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t markerSize = 2;
    constexpr std::uint64_t partLength = 6; // from the marker to the length of the tile part
    constexpr std::uint32_t minPart = 14;
    if (file.u16be(position) != startOfCodestream)
        return std::nullopt;
    position += markerSize;
    for (int count = 0; count < maxMarkers && position < limit; ++count) {
        const auto marker = file.u16be(position);
        if (marker == endOfCodestream)
            return position + markerSize;
        const auto part = file.u32be(position + partLength);
        const auto length = file.u16be(position + markerSize);
        if (marker == startOfTilePart ? part < minPart : marker < 0xFF00 || length < markerSize)
            break;
        position += marker == startOfTilePart ? part : markerSize + length;
    }
    return std::nullopt;
}

/// Whether a box belongs to a picture of one of these kinds. Behind its end another file may begin
/// whose first bytes pass for a box.
bool isKnown(const ISOBox& box)
{
    constexpr std::string_view names[] = { "jp2h", "jp2c", "jp2i", "xml ", "uuid", "uinf", "res ",
        "rreq", "asoc", "jpch", "jplh", "ftbl", "free", "jxlc", "jxlp", "jxll", "jxli", "jbrd",
        "Exif", "brob", "jumb", "jhgm", "iptr", "cidx", "fidx", "prxy" };
    return std::ranges::any_of(names, [&](std::string_view name) { return box.is(name); });
}

bool holdsPicture(const ISOBox& box) { return box.is("jp2c") || box.is("jxlc") || box.is("jxlp"); }

/// The end of the boxes that the first two lie in front of; none when no picture is among them.
std::optional<std::uint64_t> behindBoxes(RandomReader& file, std::uint64_t position)
{
    bool hasPicture = false;
    for (int count = 0; count < maxBoxes && position < limit; ++count) {
        // Without a size the last box goes on to the end, which its codestream knows.
        if (file.u32be(position) == 0 && file.matches(position + 4, "jp2c"))
            return behindCodestream(file, position + 8);
        const auto box = ISOBox::at(file, position, file.size());
        if (!box || !isKnown(*box))
            break;
        hasPicture |= holdsPicture(*box);
        position += box->size;
    }
    return hasPicture ? std::optional(position) : std::nullopt;
}

} // namespace

Found jpeg2000(const Candidate& candidate)
{
    constexpr std::uint64_t signatureSize = 12;
    auto& file = candidate.file;
    const bool isXL = file.matches(4, "JXL \r\n\x87\n");
    if (!isXL && !file.matches(4, "jP  \r\n\x87\n"))
        return std::nullopt;
    const auto type = ISOBox::at(file, signatureSize, file.size());
    const auto end
        = type && type->is("ftyp") ? behindBoxes(file, signatureSize + type->size) : std::nullopt;
    return end ? Found(candidate.found(*end, isXL ? "jxl" : "jp2")) : std::nullopt;
}

Found jpeg2000Codestream(const Candidate& candidate)
{
    const auto end = behindCodestream(candidate.file, 0);
    return end && candidate.fits(*end) ? Found(candidate.proved(*end, "j2k")) : std::nullopt;
}

} // namespace Formats
