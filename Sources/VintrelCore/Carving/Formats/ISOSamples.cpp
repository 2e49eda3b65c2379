#include "VintrelCore/Carving/Formats/ISOBoxes.h"

// ISO/IEC 14496-12, Sample Table Box and the boxes in it; ISO/IEC 14496-15 for pictures whose
// pieces begin with their lengths.

namespace Formats {

namespace {

constexpr int maxTracks = 64;
constexpr int maxBoxesInside = 1000;
constexpr std::uint32_t maxChecked = 256; // places that are looked at; each is a jump

/// The beginning of the boxes "stco" and "co64". The places follow, 32 or 64 bits wide each.
struct ChunkOffsets {
    BE32 versionAndFlags; // 0
    BE32 count;           // 4
};
static_assert(sizeof(ChunkOffsets) == 8);

/// The beginning of "stsd", with that of its first entry.
struct SampleDescription {
    BE32 versionAndFlags;               //  0
    BE32 count;                         //  4
    BE32 size;                          //  8
    std::array<std::uint8_t, 4> format; // 12
};
static_assert(sizeof(SampleDescription) == 16 && offsetof(SampleDescription, format) == 12);

/// The inside of the first box of a name from `range.start` on; `behind` it the search can go on.
struct Inside {
    ByteRange range;
    std::uint64_t behind;
};

std::optional<Inside> findBox(RandomReader& file, ByteRange range, std::string_view name)
{
    std::uint64_t position = range.start;
    for (int count = 0; count < maxBoxesInside; ++count) {
        const auto box = ISOBox::at(file, position, range.end);
        if (!box)
            return std::nullopt;
        const std::uint64_t end = position + box->size;
        if (box->is(name))
            return Inside { { position + box->headerSize, end }, end };
        position = end;
    }
    return std::nullopt;
}

std::optional<ByteRange> findNested(
    RandomReader& file, ByteRange range, std::initializer_list<std::string_view> names)
{
    for (const auto name : names) {
        const auto box = findBox(file, range, name);
        if (!box)
            return std::nullopt;
        range = box->range;
    }
    return range;
}

bool isIn(std::span<const ByteRange> ranges, std::uint64_t position)
{
    return std::ranges::any_of(ranges,
        [&](const ByteRange& range) { return position >= range.start && position < range.end; });
}

/// Whether a film's pieces say their own lengths, in four bytes, in front of a byte whose top bit
/// is never set.
bool hasLengths(RandomReader& file, ByteRange table)
{
    const auto description = findBox(file, table, "stsd");
    if (!description)
        return false;
    const auto first = file.load<SampleDescription>(description->range.start);
    const ByteView format(first.format);
    return format.matches("avc1", 0) || format.matches("avc3", 0) || format.matches("hvc1", 0)
        || format.matches("hev1", 0);
}

bool mayBePiece(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint32_t maxLength = 33'554'432; // of one picture
    const auto length = file.u32be(position);
    return length != 0 && length <= maxLength && (file.u8(position + 4) & 0x80) == 0;
}

/// Nothing when the track has no table of places: those of moving pictures in pieces have none.
std::optional<bool> isTrackInPlace(
    RandomReader& file, ByteRange track, std::span<const ByteRange> data)
{
    const auto table = findNested(file, track, { "mdia", "minf", "stbl" });
    if (!table)
        return std::nullopt;
    auto offsets = findBox(file, *table, "stco");
    const std::uint64_t width = offsets ? 4 : 8;
    if (!offsets)
        offsets = findBox(file, *table, "co64");
    if (!offsets)
        return std::nullopt;
    const std::uint32_t count = file.load<ChunkOffsets>(offsets->range.start).count;
    const std::uint64_t first = offsets->range.start + sizeof(ChunkOffsets);
    if (count == 0 || first > offsets->range.end || count > (offsets->range.end - first) / width)
        return std::nullopt;
    const bool isChecked = hasLengths(file, *table);
    const std::uint32_t step = std::max(1u, count / maxChecked);
    for (std::uint32_t i = 0; i < count && !file.isExhausted(); i += step) {
        const std::uint64_t place
            = width == 4 ? file.u32be(first + i * width) : file.u64be(first + i * width);
        if (!isIn(data, place) || (isChecked && !mayBePiece(file, place)))
            return false;
    }
    return true;
}

} // namespace

bool areSamplesInPlace(RandomReader& file, ByteRange movie, std::span<const ByteRange> data)
{
    bool hasTable = false;
    for (int count = 0; count < maxTracks; ++count) {
        const auto track = findBox(file, movie, "trak");
        if (!track)
            break;
        const auto isInPlace = isTrackInPlace(file, track->range, data);
        if (isInPlace && !*isInPlace)
            return false;
        hasTable |= isInPlace.has_value();
        movie.start = track->behind;
    }
    return hasTable;
}

} // namespace Formats
