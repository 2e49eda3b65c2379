#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/ISOBoxes.h"

#include <algorithm>
#include <cstddef>

// ISO/IEC 14496-12, the ISO base media file format: boxes in boxes. MP4, QuickTime, HEIF, AVIF and
// Canon's CR3 are of this kind.

namespace Formats {

namespace {

constexpr int maxBoxes = 100'000;
constexpr int maxMovieBoxes = 1000; // within "moov"; its header is the first of them
constexpr std::uint32_t minFirstBox = 12;
constexpr std::uint32_t maxFirstBox = 4096;
constexpr std::uint64_t from1904To1970 = 2'082'844'800;

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

/// When the movie between `position` and `end`, the inside of a "moov" box, was made.
std::optional<Date> movieDate(RandomReader& file, std::uint64_t position, std::uint64_t end)
{
    for (int count = 0; count < maxMovieBoxes; ++count) {
        const auto box = ISOBox::at(file, position, end);
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

/// What may follow in a file that has all it needs. Behind its end another file may begin whose
/// first bytes pass for a box.
bool mayFollow(const ISOBox& box)
{
    constexpr std::string_view names[] = { "moov", "mdat", "free", "skip", "wide", "meta", "moof",
        "mfra", "sidx", "ssix", "styp", "prft", "uuid", "pdin", "pnot", "PICT", "udta", "emsg",
        "meco", "imda", "junk", "thum", "mpvd", "sefd" };
    return std::ranges::any_of(names, [&](std::string_view name) { return box.is(name); });
}

/// What a walk over the boxes of a whole file has met.
struct Contents {
    std::uint64_t end = 0;       ///< of the last box
    ByteRange movie {};          ///< the inside of "moov"
    std::vector<ByteRange> data; ///< the insides of the "mdat" boxes
    bool hasMovie = false;
    bool hasMeta = false;
    bool hasFragments = false; ///< "moof" boxes, each of which describes the data behind it

    bool isComplete() const { return !data.empty() && (hasMovie || hasMeta); }
};

Contents walkBoxes(RandomReader& file)
{
    Contents contents;
    auto& position = contents.end;
    for (int count = 0; count < maxBoxes; ++count) {
        const auto box = ISOBox::at(file, position, file.size());
        if (!box)
            break;
        // Another file may begin right behind this one, or what is left of one.
        if ((count > 0 && box->is("ftyp")) || (contents.hasMovie && box->is("moov"))
            || (contents.isComplete() && !mayFollow(*box)))
            break;
        const ByteRange inside { position + box->headerSize, position + box->size };
        if (box->is("moov")) {
            contents.hasMovie = true;
            contents.movie = inside;
        }
        if (box->is("mdat"))
            contents.data.push_back(inside);
        contents.hasMeta |= box->is("meta");
        contents.hasFragments |= box->is("moof");
        position += box->size;
    }
    return contents;
}

Found fileOf(const Candidate& candidate, const Contents& contents, std::string ext)
{
    auto& file = candidate.file;
    auto found = candidate.found(contents.end, std::move(ext));
    if (contents.hasMovie) {
        found.date = movieDate(file, contents.movie.start, contents.movie.end);
        found.isProved
            = contents.hasFragments || areSamplesInPlace(file, contents.movie, contents.data);
    }
    return found;
}

} // namespace

Found isoBMFF(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = file.load<FileTypeBox>(0);
    if (first.size < minFirstBox || first.size > maxFirstBox
        || !std::ranges::all_of(first.brand, isPrintableInBox))
        return std::nullopt;
    const auto contents = walkBoxes(file);
    if (!contents.isComplete())
        return std::nullopt;
    return fileOf(
        candidate, contents, extension(ByteView(first.brand).ascii(0, 4), contents.hasMovie));
}

/// QuickTime films of the time before "ftyp": only whole ones, since their first box says little.
Found quickTime(const Candidate& candidate)
{
    auto& file = candidate.file;
    const auto first = ISOBox::at(file, 0, file.size());
    const auto second = first ? ISOBox::at(file, first->size, file.size()) : std::nullopt;
    if (!second || !mayFollow(*first) || !mayFollow(*second))
        return std::nullopt;
    const auto contents = walkBoxes(file);
    if (!contents.hasMovie || contents.data.empty())
        return std::nullopt;
    auto found = fileOf(candidate, contents, "mov");
    return found && found->isProved ? found : std::nullopt;
}

} // namespace Formats
