#include "VintrelCore/Content/Formats/ISOTracks.h"

#include <algorithm>

namespace Content::Formats {

namespace {

/// The beginning of "stsd", with that of its first entry.
struct SampleDescription {
    BE32 versionAndFlags;               //  0
    BE32 count;                         //  4
    BE32 size;                          //  8
    std::array<std::uint8_t, 4> format; // 12
};
static_assert(sizeof(SampleDescription) == 16);
constexpr std::uint64_t firstEntry = 8;         // of "stsd"
constexpr std::uint64_t visualEntryLength = 86; // with its box header; boxes follow

/// An entry of "stsc": from this chunk on all chunks hold as many samples.
struct ChunkGroup {
    BE32 firstChunk;       // 0  counted from 1
    BE32 samplesPerChunk;  // 4
    BE32 descriptionIndex; // 8
};
static_assert(sizeof(ChunkGroup) == 12);

constexpr std::uint64_t countBehindFlags = 4; // the place of most tables' count
constexpr std::uint64_t equalSizePlace = 4;   // in "stsz"
constexpr std::uint64_t sizeCountPlace = 8;

std::optional<SampleFormat> formatOf(FileBytes& file, ByteRange table)
{
    constexpr struct {
        std::string_view name;
        SampleKind kind;
    } kinds[] = { { "avc1", SampleKind::avc }, { "avc3", SampleKind::avc },
        { "hvc1", SampleKind::hevc }, { "hev1", SampleKind::hevc },
        { "mp4v", SampleKind::mpeg4Video }, { "s263", SampleKind::h263 },
        { "jpeg", SampleKind::jpeg }, { "mp4a", SampleKind::aac } };
    const auto box = findBox(file, table, "stsd");
    const auto description
        = box ? load<SampleDescription>(file, box->start) : std::optional<SampleDescription>();
    if (!description || description->count != 1)
        return std::nullopt;
    for (const auto& [name, kind] : kinds) {
        if (!ByteView(description->format).matches(name, 0))
            continue;
        SampleFormat format { kind };
        const ByteRange inEntry { box->start + firstEntry + visualEntryLength, box->end };
        const bool isAVC = kind == SampleKind::avc;
        if (isAVC || kind == SampleKind::hevc) {
            const auto setup = findBox(file, inEntry, isAVC ? "avcC" : "hvcC");
            if (!setup)
                return std::nullopt;
            const auto byte = load<std::uint8_t>(file, setup->start + (isAVC ? 4 : 21));
            format.lengthSize = static_cast<std::uint8_t>((byte.value_or(0) & 3) + 1);
        }
        return format;
    }
    return std::nullopt;
}

/// Reads the Item Location Box, whose fields have the widths that it says.
class ItemLocations {
public:
    ItemLocations(FileBytes& file, ByteRange box)
        : bytes_(bytesAt(
            file, box.start, static_cast<std::size_t>(std::min(box.end - box.start, maxSize))))
    {
    }

    std::vector<ByteRange> extentsOf(const std::vector<std::uint32_t>& items)
    {
        const auto version = take(1);
        take(3);
        const auto widths = take(2);
        const auto nibble = [&](int shift) { return static_cast<int>(widths >> shift & 0xF); };
        std::vector<ByteRange> extents;
        auto count = take(version < 2 ? 2 : 4);
        for (; count > 0 && at_ < static_cast<std::int64_t>(bytes_.size()); --count) {
            const auto item = static_cast<std::uint32_t>(take(version < 2 ? 2 : 4));
            const bool isInFile = version == 0 || (take(2) & 0xF) == 0;
            take(2); // the data are in this file
            const auto base = take(nibble(4));
            const bool isWanted = isInFile && std::ranges::find(items, item) != items.end();
            auto extentCount = take(2);
            for (; extentCount > 0 && at_ < static_cast<std::int64_t>(bytes_.size());
                 --extentCount) {
                if (version > 0)
                    take(nibble(0));
                const auto start = base + take(nibble(12));
                const auto length = take(nibble(8));
                if (isWanted && extents.size() < maxExtents && length < ISOBox::sizeLimit
                    && start < ISOBox::sizeLimit)
                    extents.push_back({ start, start + length });
            }
        }
        std::ranges::sort(extents, {}, &ByteRange::start);
        return extents;
    }

private:
    static constexpr std::uint64_t maxSize = 65'536;
    static constexpr std::size_t maxExtents = 4096;

    /// The next number, of this many bytes; 0 beyond the end.
    std::uint64_t take(int width)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < width; ++i)
            value = value << 8 | ByteView(bytes_).u8(at_++);
        return value;
    }

    Bytes bytes_;
    std::int64_t at_ = 0;
};

/// The numbers of the items that are pictures in HEVC.
std::vector<std::uint32_t> hevcItems(FileBytes& file, ByteRange information)
{
    constexpr std::size_t maxItems = 4096;
    std::vector<std::uint32_t> items;
    const auto version = load<std::uint8_t>(file, information.start).value_or(0);
    information.start += version == 0 ? 6u : 8u;
    for (std::size_t count = 0; count < maxItems; ++count) {
        const auto entry = findBox(file, information, "infe");
        if (!entry)
            break;
        const auto head = bytesAt(file, entry->start, 16);
        const bool isWide = ByteView(head).u8(0) >= 3;
        if (ByteView(head).matches("hvc1", isWide ? 10 : 8))
            items.push_back(isWide ? ByteView(head).u32be(4) : ByteView(head).u16be(4));
        information.start = entry->end;
    }
    return items;
}

} // namespace

std::optional<TrackSamples::Table> TrackSamples::tableOf(
    FileBytes& file, std::optional<ByteRange> box, std::uint64_t countPlace, std::uint8_t width)
{
    if (!box)
        return std::nullopt;
    const auto count = load<BE32>(file, box->start + countPlace);
    const Table table { box->start + countPlace + sizeof(BE32), count.value_or(BE32 {}), width };
    if (table.count == 0 || table.start > box->end
        || table.count * std::uint64_t { width } > box->end - table.start)
        return std::nullopt;
    return table;
}

std::optional<TrackSamples> TrackSamples::fromTrack(FileBytes& file, ByteRange track)
{
    const auto table = findBox(file, track, { "mdia", "minf", "stbl" });
    const auto format = table ? formatOf(file, *table) : std::nullopt;
    if (!format)
        return std::nullopt;
    auto chunks = tableOf(file, findBox(file, *table, "stco"), countBehindFlags, 4);
    if (!chunks)
        chunks = tableOf(file, findBox(file, *table, "co64"), countBehindFlags, 8);
    const auto groups
        = tableOf(file, findBox(file, *table, "stsc"), countBehindFlags, sizeof(ChunkGroup));
    const auto sizeBox = findBox(file, *table, "stsz");
    if (!chunks || !groups || !sizeBox)
        return std::nullopt;
    TrackSamples samples;
    samples.format_ = *format;
    samples.chunks_ = *chunks;
    samples.groups_ = *groups;
    samples.equalSize_ = load<BE32>(file, sizeBox->start + equalSizePlace).value_or(BE32 {});
    const auto sizes = tableOf(file, sizeBox, sizeCountPlace, samples.equalSize_ == 0 ? 4 : 0);
    if (!sizes)
        return std::nullopt;
    samples.sizes_ = *sizes;
    return samples.beginChunk(file) ? std::optional(samples) : std::nullopt;
}

std::optional<TrackSamples> TrackSamples::fromItems(FileBytes& file, ByteRange meta)
{
    meta.start += sizeof(BE32); // version and flags
    const auto information = findBox(file, meta, "iinf");
    const auto locations = findBox(file, meta, "iloc");
    if (!information || !locations)
        return std::nullopt;
    auto extents = ItemLocations(file, *locations).extentsOf(hevcItems(file, *information));
    if (extents.empty())
        return std::nullopt;
    TrackSamples samples;
    samples.format_ = { SampleKind::hevc };
    samples.extents_ = std::make_shared<const std::vector<ByteRange>>(std::move(extents));
    samples.setExtent();
    return samples;
}

bool TrackSamples::setExtent()
{
    isAtEnd_ = index_ == extents_->size();
    if (!isAtEnd_)
        sample_ = (*extents_)[index_];
    return true;
}

bool TrackSamples::next(FileBytes& file)
{
    ++index_;
    if (extents_)
        return setExtent();
    isAtEnd_ = index_ == sizes_.count;
    if (isAtEnd_)
        return true;
    if (--leftInChunk_ > 0)
        return setSample(file, sample_.end);
    ++chunk_;
    return beginChunk(file);
}

bool TrackSamples::beginChunk(FileBytes& file)
{
    if (chunk_ >= chunks_.count)
        return false;
    const auto count = samplesInChunk(file);
    const auto place = chunks_.start + std::uint64_t { chunk_ } * chunks_.width;
    const std::uint64_t start = chunks_.width == 4 ? load<BE32>(file, place).value_or(BE32 {})
                                                   : load<BE64>(file, place).value_or(BE64 {});
    if (!count || *count == 0 || start >= ISOBox::sizeLimit)
        return false;
    leftInChunk_ = *count;
    return setSample(file, start);
}

bool TrackSamples::setSample(FileBytes& file, std::uint64_t start)
{
    const auto size = equalSize_ != 0
        ? std::optional(BE32 { equalSize_ })
        : load<BE32>(file, sizes_.start + std::uint64_t { index_ } * sizeof(BE32));
    if (!size)
        return false;
    sample_ = { start, start + *size };
    return true;
}

std::optional<std::uint32_t> TrackSamples::samplesInChunk(FileBytes& file)
{
    const auto groupAt = [&](std::uint32_t group) {
        return load<ChunkGroup>(file, groups_.start + std::uint64_t { group } * sizeof(ChunkGroup));
    };
    if (group_ + 1 < groups_.count) {
        const auto following = groupAt(group_ + 1);
        if (following && following->firstChunk == chunk_ + 1)
            ++group_;
    }
    const auto group = groupAt(group_);
    return group ? std::optional<std::uint32_t>(group->samplesPerChunk) : std::nullopt;
}

} // namespace Content::Formats
