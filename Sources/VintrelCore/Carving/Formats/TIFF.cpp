#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/PhaseOne.h"
#include "VintrelCore/Carving/Formats/TIFFLayout.h"
#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <deque>
#include <unordered_set>

// "TIFF Revision 6.0", and the raw formats of cameras that are built on it: their makers document
// next to nothing, so that what tells them apart is what their files have in common.

namespace Formats {

namespace {

constexpr std::uint64_t firstDirectoryLimit = 67'108'864;
constexpr std::uint64_t endLimit = 2'147'483'648; // an end at or beyond it is taken for damage
constexpr std::uint64_t minDataEnd = 1025;
constexpr std::size_t maxDirectories = 64;
constexpr unsigned maxEntries = 999;
constexpr std::uint32_t maxValues
    = 1'000'000; // of one entry; a strip for each line of the largest pictures
constexpr std::size_t maxMakerLength = 31;
constexpr std::uint64_t fieldsRegion = 65'536; // cameras write what they say of a picture here

enum Tag : std::uint16_t {
    panasonicJPEG = 0x002E,
    maker = 0x010F,
    model = 0x0110,
    photometricInterpretation = 0x0106,
    stripOffsets = 0x0111,
    stripByteCounts = 0x0117,
    panasonicRawOffset = 0x0118,
    tileOffsets = 0x0144,
    tileByteCounts = 0x0145,
    subDirectories = 0x014A,
    previewOffset = 0x0201,
    previewLength = 0x0202,
    exifDirectory = 0x8769,
    gpsDirectory = 0x8825,
    interoperabilityDirectory = 0xA005,
    dngVersion = 0xC612,
};

constexpr std::uint32_t colourFilterArray = 32'803; // of "TIFF/EP", ISO 12234-2
constexpr std::uint8_t plainMarker = 0x2A;
constexpr std::uint8_t olympusMarker = 0x52;
constexpr std::uint8_t panasonicMarker = 0x55;
constexpr std::uint32_t noStripOffset
    = 0xFFFF'FFFF; // on Panasonic's: the raw data lies where its own tag says

/// Bytes of one value by its type, 0 for a type that does not exist.
std::uint64_t valueSize(std::uint16_t type)
{
    constexpr std::array<std::uint8_t, 14> sizes { 0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4 };
    return type < sizes.size() ? sizes[type] : 0;
}

/// One line of a directory and where its values lie.
struct Entry {
    std::uint16_t tag;
    std::uint16_t type;
    std::uint32_t count;
    std::uint64_t position; ///< of its values
    bool isInline;          ///< whether they lie in the entry itself

    Entry(const TIFFField& field, std::uint64_t at)
        : tag(field.tag)
        , type(field.type)
        , count(field.count)
        , position(at + tiffInlineValues)
        , isInline(valueSize(type) * count <= sizeof(field.valueOffset))
    {
        if (!isInline)
            position = field.valueOffset;
    }
    std::uint64_t end() const { return position + valueSize(type) * count; }
};

/// The entries of one directory that say where picture data lies.
struct DataEntries {
    std::optional<Entry> strips, stripLengths, tiles, tileLengths, preview, previewSize, rawData;

    /// Where an entry with this tag belongs; none for all other tags.
    std::optional<Entry>* slotFor(std::uint16_t tag)
    {
        switch (tag) {
        case stripOffsets:
            return &strips;
        case stripByteCounts:
            return &stripLengths;
        case tileOffsets:
            return &tiles;
        case tileByteCounts:
            return &tileLengths;
        case previewOffset:
            return &preview;
        case previewLength:
            return &previewSize;
        case panasonicRawOffset:
            return &rawData;
        default:
            return nullptr;
        }
    }
};

/// Follows the directories of one file and learns what they say about it.
class Directories {
public:
    Directories(RandomReader& file, bool isLittle, std::uint8_t marker)
        : file_(file)
        , isLittle_(isLittle)
        , marker_(marker)
    {
    }

    /// False when the first directory is no directory, or does not lie in front of `limit`.
    bool follow(std::uint64_t limit)
    {
        const std::uint64_t first = u32(offsetof(TIFFHeader<std::endian::big>, firstDirectory));
        if (first < 8 || first >= limit)
            return false;
        enqueue(first);
        for (std::size_t count = 0; count < maxDirectories && !queue_.empty(); ++count) {
            const auto directory = queue_.front();
            queue_.pop_front();
            if (!readDirectory(directory) && count == 0)
                return false;
        }
        return true;
    }

    bool hasImage() const { return dataEnd_ > 0; }
    std::uint64_t dataEnd() const { return dataEnd_; }
    /// The end of everything that a reader of the file looks at.
    std::uint64_t end() const { return std::max(dataEnd_, structureEnd_); }

    /// Whether more than the first sectors is as it was: the previews begin as such, or directories
    /// lie behind the pictures that they describe. Pixels alone tell nothing.
    bool isProved() const
    {
        return end() <= file_.size() && !hasFalsePreview_ && !hasUnknownType_
            && (hasPreview_ || lastDirectory_ > firstData_);
    }

    const char* extension() const
    {
        const auto maker = Text::upperCase(maker_);
        constexpr struct {
            std::string_view name;
            const char* ext;
        } makers[] = { { "NIKON", "nef" }, { "SONY", "arw" }, { "PENTAX", "pef" },
            { "RICOH", "pef" }, { "SAMSUNG", "srw" }, { "CANON", "cr2" } };

        if (marker_ == olympusMarker)
            return "orf";
        if (marker_ == panasonicMarker)
            return "rw2";
        if (maker.starts_with("OLYMPUS") || maker.starts_with("OM DIGITAL"))
            return "orf";
        if (isDNG_)
            return "dng";
        if (file_.matches(8, "CR"))
            return "cr2";
        if (isMosaic_ && maker.starts_with("SONY") && model_ == "DSC-R1")
            return "sr2"; // the only camera that writes them
        for (const auto& [name, ext] : makers)
            if (maker.starts_with(name))
                return ext;
        return isMosaic_ ? mosaicExtension(maker) : "tif";
    }

private:
    /// Of makers whose scanners write TIFF files, too: only what a sensor saw is a raw.
    static const char* mosaicExtension(std::string_view maker)
    {
        constexpr struct {
            std::string_view name;
            const char* ext;
        } makers[] = { { "HASSELBLAD", "3fr" }, { "SEIKO EPSON", "erf" }, { "EPSON", "erf" },
            { "EASTMAN KODAK", "kdc" }, { "KODAK", "kdc" } };
        for (const auto& [name, ext] : makers)
            if (maker.starts_with(name))
                return ext;
        return "tif";
    }

    std::uint16_t u16(std::uint64_t position)
    {
        return isLittle_ ? file_.u16le(position) : file_.u16be(position);
    }
    std::uint32_t u32(std::uint64_t position)
    {
        return isLittle_ ? file_.u32le(position) : file_.u32be(position);
    }

    void enqueue(std::uint64_t directory)
    {
        if (directory != 0 && queue_.size() < maxDirectories && seen_.insert(directory).second)
            queue_.push_back(directory);
    }

    /// The value number `index` of an entry: offsets and lengths are 16 or 32 bits wide.
    std::uint32_t value(const Entry& entry, std::uint32_t index)
    {
        return valueSize(entry.type) == 2 ? u16(entry.position + std::uint64_t { index } * 2)
                                          : u32(entry.position + std::uint64_t { index } * 4);
    }

    void addData(std::uint64_t offset, std::uint64_t length)
    {
        if (offset == 0 || length == 0 || offset + length >= endLimit)
            return;
        firstData_ = std::min(firstData_, offset);
        dataEnd_ = std::max(dataEnd_, offset + length);
    }

    void addStructure(std::uint64_t end)
    {
        if (end < endLimit)
            structureEnd_ = std::max(structureEnd_, end);
    }

    void addPieces(const std::optional<Entry>& offsets, const std::optional<Entry>& lengths)
    {
        if (!offsets || !lengths)
            return;
        const auto count = std::min({ offsets->count, lengths->count, maxValues });
        for (std::uint32_t i = 0; i < count && !file_.isExhausted(); ++i)
            if (const auto offset = value(*offsets, i); offset != noStripOffset)
                addData(offset, value(*lengths, i));
    }

    Entry readEntry(std::uint64_t position)
    {
        if (isLittle_)
            return { TIFFField(file_.load<StoredTIFFField<std::endian::little>>(position)),
                position };
        return { TIFFField(file_.load<StoredTIFFField<std::endian::big>>(position)), position };
    }

    bool readDirectory(std::uint64_t start)
    {
        const unsigned count = u16(start);
        const std::uint64_t next = start + tiffCountSize + count * tiffFieldSize;
        const std::uint64_t end = next + tiffNextSize;
        if (count < 1 || count > maxEntries || end > file_.size())
            return false;
        addStructure(end);
        lastDirectory_ = std::max(lastDirectory_, start);
        DataEntries data;
        for (unsigned i = 0; i < count; ++i) {
            const auto entry = readEntry(start + tiffCountSize + i * tiffFieldSize);
            hasUnknownType_ |= valueSize(entry.type) == 0;
            if (!entry.isInline)
                addStructure(entry.end());
            if (auto* const slot = data.slotFor(entry.tag))
                *slot = entry;
            else
                readOtherEntry(entry);
        }
        addAllData(data);
        enqueue(u32(next)); // the next picture
        return true;
    }

    void readOtherEntry(const Entry& entry)
    {
        switch (entry.tag) {
        case panasonicJPEG:
            if (marker_ == panasonicMarker)
                addData(entry.position, entry.count);
            break;
        case maker:
            maker_ = readText(entry);
            break;
        case model:
            model_ = readText(entry);
            break;
        case dngVersion:
            isDNG_ = true;
            break;
        case photometricInterpretation:
            isMosaic_ |= value(entry, 0) == colourFilterArray;
            break;
        case subDirectories:
        case exifDirectory:
        case gpsDirectory:
        case interoperabilityDirectory:
            for (std::uint32_t n = 0; n < entry.count && n < maxDirectories; ++n)
                enqueue(value(entry, n));
            break;
        default:
            break;
        }
    }

    void addAllData(const DataEntries& data)
    {
        addPieces(data.strips, data.stripLengths);
        addPieces(data.tiles, data.tileLengths);
        addPieces(data.preview, data.previewSize);
        if (data.preview && data.previewSize) {
            const bool isJPEG = file_.matches(value(*data.preview, 0), "\xFF\xD8");
            hasPreview_ |= isJPEG;
            hasFalsePreview_ |= !isJPEG;
        }
        if (marker_ == panasonicMarker && data.rawData && data.strips
            && value(*data.strips, 0) == noStripOffset)
            addData(value(*data.rawData, 0), data.stripLengths ? value(*data.stripLengths, 0) : 0);
    }

    std::string readText(const Entry& entry)
    {
        std::string text;
        for (std::uint64_t i = 0; i < std::min<std::uint64_t>(entry.count, maxMakerLength); ++i) {
            const auto byte = file_.u8(entry.position + i);
            if (byte < 0x20 || byte > 0x7E)
                break;
            text += static_cast<char>(byte);
        }
        return text;
    }

    RandomReader& file_;
    bool isLittle_;
    std::uint8_t marker_;
    std::deque<std::uint64_t> queue_;
    std::unordered_set<std::uint64_t> seen_; // directories that point at each other are read once
    std::uint64_t dataEnd_ = 0;
    std::uint64_t structureEnd_ = 0;
    std::uint64_t firstData_ = endLimit;
    std::uint64_t lastDirectory_ = 0;
    bool hasPreview_ = false;
    bool hasFalsePreview_ = false;
    bool hasUnknownType_ = false; ///< as where a directory's place holds something else
    std::string maker_, model_;
    bool isDNG_ = false;
    bool isMosaic_ = false; ///< whether a picture has one colour in each pixel
};

} // namespace

Found tiff(const Candidate& candidate)
{
    const bool isLittle = candidate.file.u8(0) == 'I';
    constexpr std::uint64_t markerOffset = offsetof(TIFFHeader<std::endian::big>, magic);
    Directories directories(
        candidate.file, isLittle, isLittle ? candidate.file.u8(markerOffset) : plainMarker);
    const auto phaseOne = phaseOneEnd(candidate.file);
    if (!directories.follow(phaseOne ? endLimit : firstDirectoryLimit) || !directories.hasImage()
        || directories.dataEnd() < minDataEnd)
        return std::nullopt;
    auto found = candidate.found(std::max(directories.end(), phaseOne.value_or(0)),
        phaseOne ? "iiq" : directories.extension());
    found.isProved = directories.isProved() && candidate.fits(found.size);
    found.captured = exifDate(
        candidate.file.bytes(0, static_cast<std::size_t>(std::min(found.size, fieldsRegion))));
    return found;
}

} // namespace Formats
