#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <unordered_set>

// "The BigTIFF File Format" (Aware Systems): TIFF with places and counts of 64 bits.

namespace Formats {

namespace {

constexpr std::size_t maxDirectories = 64;
constexpr std::uint64_t maxEntries = 999;
constexpr std::uint64_t maxValues = 1'000'000; // of one entry
constexpr std::uint16_t placeSize = 8;         // in bytes, as the header states it

enum Tag : std::uint16_t {
    stripOffsets = 0x0111,
    stripByteCounts = 0x0117,
    tileOffsets = 0x0144,
    tileByteCounts = 0x0145,
};

template <std::endian order> struct Header {
    std::array<std::uint8_t, 2> byteOrder;       // 0  "II" or "MM"
    Stored<std::uint16_t, order> magic;          // 2  43
    Stored<std::uint16_t, order> sizeOfPlaces;   // 4
    Stored<std::uint16_t, order> zero;           // 6
    Stored<std::uint64_t, order> firstDirectory; // 8
};
static_assert(sizeof(Header<std::endian::big>) == 16);

/// One line of a directory, which begins with their number and ends with the place of the next one.
template <std::endian order> struct Field {
    Stored<std::uint16_t, order> tag, type; //  0, 2
    Stored<std::uint64_t, order> count;     //  4  of values
    Stored<std::uint64_t, order> value;     // 12  where they lie, or they themselves
};
static_assert(sizeof(Field<std::endian::big>) == 20);

/// Bytes of one value of the types that places and lengths have; 0 for all others.
std::uint64_t valueSize(std::uint16_t type)
{
    switch (type) {
    case 3: // SHORT
        return 2;
    case 4: // LONG
        return 4;
    case 16: // LONG8
        return 8;
    default:
        return 0;
    }
}

template <std::endian order> class Directories {
public:
    explicit Directories(RandomReader& file)
        : file_(file)
    {
    }

    /// Whether the directories, and the pictures that they describe, all lie on the source.
    bool follow()
    {
        const auto header = file_.load<Header<order>>(0);
        if (header.sizeOfPlaces != placeSize || header.zero != 0)
            return false;
        std::uint64_t next = header.firstDirectory;
        while (next != 0) {
            if (seen_.size() >= maxDirectories || !seen_.insert(next).second || !read(next, next))
                return false;
        }
        return dataEnd_ > 0;
    }

    std::uint64_t end() const { return std::max(dataEnd_, structureEnd_); }
    /// Whether directories lie behind the pictures that they describe: pixels alone tell nothing.
    bool isProved() const { return lastDirectory_ > firstData_; }

private:
    struct Values {
        std::uint64_t position = 0, count = 0, size = 0;
    };

    bool isInside(std::uint64_t position, std::uint64_t length) const
    {
        return position < file_.size() && length <= file_.size() - position;
    }

    std::uint64_t valueAt(const Values& values, std::uint64_t index)
    {
        const std::uint64_t position = values.position + index * values.size;
        switch (values.size) {
        case 2:
            return file_.load<Stored<std::uint16_t, order>>(position);
        case 4:
            return file_.load<Stored<std::uint32_t, order>>(position);
        default:
            return file_.load<Stored<std::uint64_t, order>>(position);
        }
    }

    bool read(std::uint64_t start, std::uint64_t& next)
    {
        if (!isInside(start, sizeof(LE64)))
            return false;
        const std::uint64_t count = file_.load<Stored<std::uint64_t, order>>(start);
        if (count < 1 || count > maxEntries)
            return false;
        const std::uint64_t length = 2 * sizeof(LE64) + count * sizeof(Field<order>);
        if (!isInside(start, length))
            return false;
        lastDirectory_ = std::max(lastDirectory_, start);
        structureEnd_ = std::max(structureEnd_, start + length);
        Values strips, stripLengths, tiles, tileLengths;
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t at = start + sizeof(LE64) + i * sizeof(Field<order>);
            const auto field = file_.load<Field<order>>(at);
            const Values values { at, field.count, valueSize(field.type) };
            for (const auto& [tag, target] :
                { std::pair { stripOffsets, &strips }, { stripByteCounts, &stripLengths },
                    { tileOffsets, &tiles }, { tileByteCounts, &tileLengths } })
                if (field.tag == tag && !keep(values, field.value, *target))
                    return false;
        }
        next = file_.load<Stored<std::uint64_t, order>>(start + length - sizeof(LE64));
        return addPieces(strips, stripLengths) && addPieces(tiles, tileLengths);
    }

    /// Keeps where the values of a field lie. False when they do not lie on the source.
    bool keep(Values values, std::uint64_t place, Values& target)
    {
        if (values.size == 0 || values.count == 0 || values.count > maxValues)
            return false;
        const std::uint64_t length = values.size * values.count;
        const bool isInline = length <= placeSize;
        values.position = isInline ? values.position + offsetof(Field<order>, value) : place;
        if (!isInside(values.position, length))
            return false;
        structureEnd_ = std::max(structureEnd_, values.position + length);
        target = values;
        return true;
    }

    bool addPieces(const Values& places, const Values& lengths)
    {
        const auto count = std::min(places.count, lengths.count);
        for (std::uint64_t i = 0; i < count && !file_.isExhausted(); ++i) {
            const auto place = valueAt(places, i);
            const auto length = valueAt(lengths, i);
            if (!isInside(place, length))
                return false;
            firstData_ = std::min(firstData_, place);
            dataEnd_ = std::max(dataEnd_, place + length);
        }
        return true;
    }

    RandomReader& file_;
    std::unordered_set<std::uint64_t> seen_;
    std::uint64_t dataEnd_ = 0;
    std::uint64_t structureEnd_ = 0;
    std::uint64_t firstData_ = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t lastDirectory_ = 0;
};

template <std::endian order> Found read(const Candidate& candidate)
{
    Directories<order> directories(candidate.file);
    if (!directories.follow())
        return std::nullopt;
    auto found = candidate.found(directories.end(), "tif");
    found.isProved = directories.isProved();
    return found;
}

} // namespace

Found bigTIFF(const Candidate& candidate)
{
    return candidate.file.u8(0) == 'I' ? read<std::endian::little>(candidate)
                                       : read<std::endian::big>(candidate);
}

} // namespace Formats
