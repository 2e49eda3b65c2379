#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// ISO/IEC 14496-12, the ISO base media file format: boxes in boxes. MP4, QuickTime, HEIF, AVIF and
// Canon's CR3 are of this kind.

namespace Formats {

namespace {

constexpr int maxBoxes = 100'000;
constexpr int maxMovieBoxes = 1000; // within "moov"; its header is the first of them
constexpr std::uint64_t boxSizeLimit = std::uint64_t { 1 } << 40;
constexpr std::uint32_t minFirstBox = 12;
constexpr std::uint32_t maxFirstBox = 4096;
constexpr std::uint64_t from1904To1970 = 2'082'844'800;

struct BoxHeader {
    BE32 size;                        // 0  the whole box; 1: the 64 bits behind say it
    std::array<std::uint8_t, 4> type; // 4
    BE64 largeSize;                   // 8
};
static_assert(sizeof(BoxHeader) == 16 && offsetof(BoxHeader, largeSize) == 8);

/// The beginning of a FileTypeBox.
struct FileTypeBox {
    BE32 size;                         // 0
    std::array<std::uint8_t, 4> type;  // 4  "ftyp"
    std::array<std::uint8_t, 4> brand; // 8
};
static_assert(sizeof(FileTypeBox) == 12 && offsetof(FileTypeBox, brand) == 8);

/// The beginning of a MovieHeaderBox's body. Its times are 64 bits wide in version 1.
struct MovieHeader {
    std::uint8_t version;              // 0
    std::array<std::uint8_t, 3> flags; // 1
    BE32 created;                      // 4
    BE32 createdLow;                   // 8  in version 1

    std::uint64_t secondsFrom1904() const
    {
        const std::uint64_t high = created;
        return version == 1 ? high << 32 | createdLow : high;
    }
};
static_assert(sizeof(MovieHeader) == 12 && offsetof(MovieHeader, created) == 4);

bool isPrintable(std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; }

struct Box {
    std::uint64_t size;
    std::uint64_t headerSize;
    std::array<std::uint8_t, 4> type;

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }

    /// None where none begins, or one that would go beyond `end`.
    static std::optional<Box> at(RandomReader& file, std::uint64_t position, std::uint64_t end)
    {
        const auto header = file.load<BoxHeader>(position);
        const bool isLarge = header.size == 1;
        const std::uint64_t size
            = isLarge ? std::uint64_t { header.largeSize } : std::uint64_t { header.size };
        const Box box { size, isLarge ? 16u : 8u, header.type };
        const bool isNamed
            = (isPrintable(box.type[0]) || box.type[0] == 0xA9) // A9: "©", on QuickTime's texts
            && std::all_of(box.type.begin() + 1, box.type.end(), isPrintable);
        if (position >= end || box.size < box.headerSize || box.size >= boxSizeLimit
            || box.size > end - position || !isNamed)
            return std::nullopt;
        return box;
    }
};

/// When the movie between `position` and `end`, the inside of a "moov" box, was made.
std::optional<Date> movieDate(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    for (int count = 0; count < maxMovieBoxes; ++count) {
        const auto box = Box::at(file, position, end);
        if (!box)
            break;
        if (box->is("mvhd")) {
            const auto header = file.load<MovieHeader>(position + box->headerSize);
            const std::uint64_t seconds = header.secondsFrom1904();
            constexpr std::uint64_t nanoseconds = 1'000'000'000;
            if (seconds <= from1904To1970 || seconds - from1904To1970 > UINT64_MAX / nanoseconds)
                return std::nullopt;
            return TimeConversion::fromAPFS((seconds - from1904To1970) * nanoseconds);
        }
        position += box->size;
    }
    return std::nullopt;
}

std::string extension(std::string_view brand, bool hasMovie)
{
    constexpr struct {
        std::string_view brand;
        const char* ext;
    } brands[] = { { "qt  ", "mov" }, { "heic", "heic" }, { "heix", "heic" }, { "mif1", "heic" },
        { "msf1", "heic" }, { "hevc", "heic" }, { "heim", "heic" }, { "heis", "heic" },
        { "avif", "avif" }, { "avis", "avif" }, { "M4A ", "m4a" }, { "M4B ", "m4a" },
        { "M4P ", "m4a" }, { "M4V ", "m4v" }, { "M4VH", "m4v" }, { "M4VP", "m4v" },
        { "crx ", "cr3" } };
    for (const auto& [name, ext] : brands)
        if (brand == name)
            return ext;
    if (brand.starts_with("3g"))
        return "3gp";
    return hasMovie ? "mp4" : "heic";
}

} // namespace

Found isoBMFF(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = file.load<FileTypeBox>(0);
    if (first.size < minFirstBox || first.size > maxFirstBox
        || !std::ranges::all_of(first.brand, isPrintable))
        return std::nullopt;

    bool hasMovie = false;
    bool hasMeta = false;
    bool hasData = false;
    std::optional<Date> date;
    std::uint64_t position = 0;
    for (int count = 0; count < maxBoxes; ++count) {
        const auto box = Box::at(file, position, file.size());
        if (!box)
            break;
        // Another file may begin right behind this one, or what is left of one.
        if ((count > 0 && box->is("ftyp")) || (hasMovie && box->is("moov")))
            break;
        if (box->is("moov")) {
            hasMovie = true;
            date = movieDate(file, position + box->headerSize, position + box->size);
        }
        hasMeta |= box->is("meta");
        hasData |= box->is("mdat");
        position += box->size;
    }
    if (!hasData || (!hasMovie && !hasMeta))
        return std::nullopt;
    auto found = candidate.found(position, extension(ByteView(first.brand).ascii(0, 4), hasMovie));
    found.date = date;
    return found;
}

} // namespace Formats
