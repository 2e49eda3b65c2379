#include "VintrelCore/Content/Formats/TIFFDirectory.h"

#include <algorithm>
#include <array>

namespace Content::Formats {

namespace {

constexpr std::uint64_t fieldSize = 12;
constexpr std::uint64_t valuePlace = 8; // in a field
constexpr std::uint64_t inlineSize = 4; // values that are no longer lie in the field
constexpr std::uint32_t maxValues = 1'048'576;
constexpr std::uint32_t maxFields = 1000;

/// By type, in bytes; 0 for types that there are not.
constexpr std::array<std::uint8_t, 14> valueSizes { 0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4 };

enum Tag : std::uint16_t {
    width = 256,
    height = 257,
    bitsPerSample = 258,
    compression = 259,
    stripOffsets = 273,
    samplesPerPixel = 277,
    rowsPerStrip = 278,
    stripSizes = 279,
    planes = 284,
    tileWidth = 322,
    tileHeight = 323,
    tileOffsets = 324,
    tileSizes = 325,
    subDirectories = 330,
    jpegOffset = 513,
    jpegSize = 514,
    exifDirectory = 34665,
    gpsDirectory = 34853,
};

TIFFStrip::Coding codingOf(std::uint32_t compression)
{
    constexpr struct {
        std::uint32_t number;
        TIFFStrip::Coding coding;
    } codings[] = { { 1, TIFFStrip::Coding::plain }, { 5, TIFFStrip::Coding::lzw },
        { 7, TIFFStrip::Coding::jpeg }, { 8, TIFFStrip::Coding::deflate },
        { 32773, TIFFStrip::Coding::packBits }, { 32946, TIFFStrip::Coding::deflate } };
    for (const auto& [number, coding] : codings)
        if (number == compression)
            return coding;
    return TIFFStrip::Coding::other;
}

/// Whether no two of them share a byte, nor one with the file's header.
bool areApart(std::vector<TIFFStrip> strips)
{
    std::ranges::sort(strips, {}, [](const TIFFStrip& strip) { return strip.range.start; });
    std::uint64_t end = 8;
    for (const auto& strip : strips) {
        const bool isEmpty = strip.range.start == strip.range.end;
        if (!isEmpty && strip.range.start < end)
            return false;
        end = std::max(end, strip.range.end);
    }
    return true;
}

} // namespace

TIFFReader::Field TIFFReader::fieldAt(ByteView bytes, std::int64_t at, std::uint64_t place) const
{
    Field field { u16(bytes, at), u16(bytes, at + 2), u32(bytes, at + 4), 0, 0 };
    const std::uint64_t valueSize = field.type < valueSizes.size() ? valueSizes[field.type] : 0;
    field.size = valueSize * field.count;
    field.place = field.size <= inlineSize ? place + valuePlace
                                           : u32(bytes, at + std::int64_t { valuePlace });
    return field;
}

std::vector<std::uint32_t> TIFFReader::values(FileBytes& file, const Field* field) const
{
    constexpr std::uint16_t shortType = 3;
    if (!field || field->count > maxValues)
        return {};
    const std::int64_t size = field->type == shortType ? 2 : 4;
    const auto bytes
        = bytesAt(file, field->place, static_cast<std::size_t>(field->count * std::uint64_t(size)));
    std::vector<std::uint32_t> values;
    values.reserve(field->count);
    for (std::int64_t at = 0; at + size <= static_cast<std::int64_t>(bytes.size()); at += size)
        values.push_back(size == 2 ? u16(bytes, at) : u32(bytes, at));
    return values;
}

std::uint32_t TIFFReader::value(FileBytes& file, const Field* field, std::uint32_t otherwise) const
{
    const auto all = values(file, field);
    return all.empty() ? otherwise : all.front();
}

std::optional<TIFFDirectory> TIFFReader::directory(FileBytes& file, std::uint64_t place) const
{
    const auto head = bytesAt(file, place, sizeof(std::uint16_t));
    const std::uint32_t count = u16(head, 0);
    const auto fieldsStart = place + sizeof(std::uint16_t);
    const auto nextPlace = fieldsStart + count * fieldSize;
    TIFFDirectory directory;
    directory.end = nextPlace + inlineSize;
    directory.isSound = count > 0 && count <= maxFields;
    if (head.size() < sizeof(std::uint16_t) || (directory.isSound && file.size() < directory.end))
        return std::nullopt;
    if (!directory.isSound)
        return directory;
    const auto bytes
        = bytesAt(file, fieldsStart, static_cast<std::size_t>(directory.end - fieldsStart));
    std::vector<Field> fields;
    fields.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto at = i * fieldSize;
        const auto field = fieldAt(bytes, static_cast<std::int64_t>(at), fieldsStart + at);
        // More lenient than the order that the document demands: only types have to exist.
        directory.isSound = directory.isSound && field.type > 0 && field.type < valueSizes.size();
        directory.end = std::max(directory.end, field.place + field.size);
        fields.push_back(field);
    }
    if (!directory.isSound)
        return directory;
    if (file.size() < directory.end)
        return std::nullopt;
    const auto next = u32(bytes, static_cast<std::int64_t>(count * fieldSize));
    if (next != 0)
        directory.others.push_back(next);
    addStrips(file, fields, directory);
    return directory;
}

void TIFFReader::addStrips(
    FileBytes& file, const std::vector<Field>& fields, TIFFDirectory& directory) const
{
    const auto find = [&](Tag tag) {
        const auto found = std::ranges::find(fields, tag, &Field::tag);
        return found == fields.end() ? nullptr : &*found;
    };
    for (const auto tag : { subDirectories, exifDirectory, gpsDirectory }) {
        const auto places = values(file, find(tag));
        directory.others.insert(directory.others.end(), places.begin(), places.end());
    }
    const bool isTiled = find(tileOffsets) != nullptr;
    const auto offsets = values(file, find(isTiled ? tileOffsets : stripOffsets));
    const auto sizes = values(file, find(isTiled ? tileSizes : stripSizes));
    const auto coding = codingOf(value(file, find(compression), 1));
    constexpr std::uint64_t most = 64; // bits of a sample, and samples of a pixel
    const auto bits = std::min<std::uint64_t>(value(file, find(bitsPerSample), 1), most);
    const auto samples = std::min<std::uint64_t>(value(file, find(samplesPerPixel), 1), most);
    const bool isApart = value(file, find(planes), 1) == 2; // each sample in strips of its own
    const std::uint64_t perPixel = isApart ? 1 : samples;
    const auto columns = value(file, find(isTiled ? tileWidth : width), 0);
    const std::uint64_t allRows = value(file, find(height), 0);
    const std::uint64_t rows = isTiled
        ? value(file, find(tileHeight), 0)
        : std::min<std::uint64_t>(value(file, find(rowsPerStrip), UINT32_MAX), allRows);
    const auto rowSize = (columns * perPixel * bits + 7) / 8;
    const auto perPlane = rows == 0 ? 0 : (allRows + rows - 1) / rows;
    for (std::size_t i = 0; i < std::min(offsets.size(), sizes.size()); ++i) {
        TIFFStrip strip;
        strip.range = { offsets[i], std::uint64_t { offsets[i] } + sizes[i] };
        strip.coding = coding;
        strip.rowSize = static_cast<std::uint32_t>(std::min<std::uint64_t>(rowSize, UINT32_MAX));
        const bool isLast = !isTiled && perPlane > 0 && i % perPlane == perPlane - 1;
        const std::uint64_t rowsHere = isLast ? allRows - (perPlane - 1) * rows : rows;
        strip.unpacked = rowSize * rowsHere;
        strip.isSmooth = coding == TIFFStrip::Coding::plain && bits == 8;
        directory.strips.push_back(strip);
    }
    directory.isSound = offsets.size() == sizes.size() && areApart(directory.strips);
    const auto jpeg = value(file, find(jpegOffset), 0);
    if (jpeg != 0)
        directory.strips.push_back(
            { { jpeg, std::uint64_t { jpeg } + value(file, find(jpegSize), 0) },
                TIFFStrip::Coding::jpeg, 0, 0, false });
}

} // namespace Content::Formats
