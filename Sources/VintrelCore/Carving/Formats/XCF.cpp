#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <algorithm>

// "XCF Specification" (GIMP): structures that name each other's places, down to tiles of 64 by 64
// pixels. Nothing says how long a tile is, so that the last one has to be unpacked.

namespace Formats {

namespace {

constexpr std::uint64_t limit = std::uint64_t { 1 } << 40;
constexpr std::uint32_t maxEdge = 524'288;
constexpr std::uint64_t tileEdge = 64;
constexpr int maxProperties = 10'000;
constexpr int maxStructures = 100'000; // layers, or channels
constexpr int maxTiles = 100'000'000;

enum class Packing : std::uint8_t { none, runs, zlib };

/// The tile that lies last in the file.
struct LastTile {
    std::uint64_t position = 0;
    std::uint64_t pixels = 0;
    std::uint64_t pixelSize = 0;
};

/// Follows the structures of one picture. Reads from a place that only goes on.
class Picture {
public:
    explicit Picture(RandomReader& file)
        : file_(file)
    {
    }

    /// Where it ends; none when it does not hold together.
    std::optional<std::uint64_t> end()
    {
        if (!readHeader() || !readStructures(true) || !readStructures(false) || tile_.position == 0)
            return std::nullopt;
        const auto tileEnd = endOfTile();
        return tileEnd ? std::optional(std::max(*tileEnd, structuresEnd_)) : std::nullopt;
    }

private:
    std::uint32_t u32()
    {
        position_ += sizeof(BE32);
        return file_.u32be(position_ - sizeof(BE32));
    }
    std::uint64_t pointer()
    {
        if (!hasWidePointers_)
            return u32();
        position_ += sizeof(BE64);
        return file_.u64be(position_ - sizeof(BE64));
    }
    void noteEnd() { structuresEnd_ = std::max(structuresEnd_, position_); }

    bool readHeader();
    bool skipProperties();
    bool readStructures(bool areLayers);
    bool readLayer(std::uint64_t at, bool isLayer);
    bool readHierarchy(std::uint64_t at);
    bool readLevel(std::uint64_t at, std::uint64_t pixelSize);
    std::optional<std::uint64_t> endOfTile();
    std::uint64_t behindRuns(std::uint64_t position, std::uint64_t pixels);
    std::optional<std::uint64_t> behindZlib(std::uint64_t position);

    RandomReader& file_;
    std::uint64_t position_ = 0;
    std::uint64_t structuresEnd_ = 0;
    LastTile tile_;
    std::uint64_t mask_ = 0; ///< of the layer that was read last; 0 without one
    Packing packing_ = Packing::none;
    bool hasWidePointers_ = false;
};

bool Picture::readHeader()
{
    constexpr std::string_view signature = "gimp xcf ";
    constexpr unsigned firstWithPrecision = 4;
    constexpr unsigned firstWide = 11;
    constexpr unsigned lastKnown = 17; // paths are structures of their own from then on
    if (!file_.matches(0, signature))
        return false;
    unsigned version = 0;
    if (!file_.matches(signature.size(), "file"))
        for (std::uint64_t digit = 10; digit < 13; ++digit)
            version = version * 10 + static_cast<unsigned>(file_.u8(digit) - '0');
    position_ = signature.size() + 5;
    const auto width = u32();
    const auto height = u32();
    const auto type = u32();
    if (version > lastKnown || width == 0 || width > maxEdge || height == 0 || height > maxEdge
        || type > 2)
        return false;
    if (version >= firstWithPrecision)
        u32();
    hasWidePointers_ = version >= firstWide;
    return skipProperties();
}

bool Picture::skipProperties()
{
    constexpr std::uint32_t end = 0;
    constexpr std::uint32_t compression = 17;
    for (int count = 0; count < maxProperties && position_ < limit; ++count) {
        const auto type = u32();
        const auto size = u32();
        if (type == compression && file_.u8(position_) <= 2)
            packing_ = static_cast<Packing>(file_.u8(position_));
        position_ += size;
        if (type == end)
            return size == 0;
    }
    return false;
}

/// Reads the list of layers or channels at the position, and each of them.
bool Picture::readStructures(bool areLayers)
{
    for (int count = 0; count < maxStructures; ++count) {
        const auto at = pointer();
        noteEnd();
        if (at == 0)
            return !areLayers || count > 0;
        const auto next = position_;
        if (at >= file_.size() || !readLayer(at, areLayers))
            return false;
        if (mask_ != 0 && (mask_ >= file_.size() || !readLayer(mask_, false)))
            return false;
        position_ = next;
    }
    return false;
}

bool Picture::readLayer(std::uint64_t at, bool isLayer)
{
    constexpr std::uint32_t maxName = 65'536;
    position_ = at + (isLayer ? 3 : 2) * sizeof(BE32); // width, height, and a layer's type
    const auto nameSize = u32();
    position_ += nameSize;
    if (nameSize > maxName || !skipProperties())
        return false;
    const auto hierarchy = pointer();
    mask_ = isLayer ? pointer() : 0;
    noteEnd();
    return readHierarchy(hierarchy);
}

bool Picture::readHierarchy(std::uint64_t at)
{
    constexpr int maxLevels = 32;
    constexpr std::uint32_t maxPixelSize = 32;
    position_ = at + 2 * sizeof(BE32);
    const auto pixelSize = u32();
    if (at >= file_.size() || pixelSize == 0 || pixelSize > maxPixelSize)
        return false;
    for (int count = 0; count < maxLevels; ++count) {
        const auto level = pointer();
        noteEnd();
        if (level == 0)
            return count > 0;
        const auto next = position_;
        if (level >= file_.size() || (count == 0 && !readLevel(level, pixelSize)))
            return false;
        // The smaller ones have a size, no tiles, and a zero that is narrow in all versions.
        if (count > 0)
            structuresEnd_ = std::max(structuresEnd_, level + 3 * sizeof(BE32));
        position_ = next;
    }
    return false;
}

bool Picture::readLevel(std::uint64_t at, std::uint64_t pixelSize)
{
    position_ = at;
    const std::uint64_t width = u32();
    const std::uint64_t height = u32();
    const std::uint64_t columns = (width + tileEdge - 1) / tileEdge;
    if (width == 0 || width > maxEdge || height == 0 || height > maxEdge)
        return false;
    for (std::uint64_t tile = 0; tile < maxTiles && !file_.isExhausted(); ++tile) {
        const auto data = pointer();
        noteEnd();
        if (data == 0)
            return true;
        const std::uint64_t x = tile % columns * tileEdge;
        const std::uint64_t y = tile / columns * tileEdge;
        if (y >= height || data >= file_.size())
            return false;
        if (data >= tile_.position)
            tile_ = { data, std::min(tileEdge, width - x) * std::min(tileEdge, height - y),
                pixelSize };
    }
    return false;
}

std::optional<std::uint64_t> Picture::endOfTile()
{
    switch (packing_) {
    case Packing::none:
        return tile_.position + tile_.pixels * tile_.pixelSize;
    case Packing::zlib:
        return behindZlib(tile_.position);
    default:
        break;
    }
    auto position = tile_.position;
    for (std::uint64_t byte = 0; byte < tile_.pixelSize; ++byte) // each byte of all pixels in turn
        position = behindRuns(position, tile_.pixels);
    return position;
}

/// The end of runs of equal and of different bytes.
std::uint64_t Picture::behindRuns(std::uint64_t position, std::uint64_t pixels)
{
    constexpr unsigned longEqual = 127;
    constexpr unsigned longDifferent = 128;
    while (pixels > 0 && !file_.isExhausted()) {
        const unsigned code = file_.u8(position++);
        std::uint64_t count = code < longEqual ? code + 1 : 256 - code;
        if (code == longEqual || code == longDifferent) {
            count = file_.u16be(position);
            position += sizeof(BE16);
        }
        position += code <= longEqual ? 1 : count;
        pixels -= std::min(std::max<std::uint64_t>(count, 1), pixels);
    }
    return position;
}

std::optional<std::uint64_t> Picture::behindZlib(std::uint64_t position)
{
    using Compression::Inflater;
    Inflater inflater(Inflater::Wrapping::zlib);
    Bytes room(static_cast<std::size_t>(tile_.pixels * tile_.pixelSize) + 1);
    const auto packed = file_.bytes(position, 2 * room.size());
    const auto progress = inflater.unpack(packed, room);
    if (progress.state != Inflater::State::ended || progress.produced + 1 != room.size())
        return std::nullopt;
    return position + progress.consumed;
}

} // namespace

Found xcf(const Candidate& candidate)
{
    const auto end = Picture(candidate.file).end();
    return end && candidate.fits(*end) ? Found(candidate.found(*end, "xcf")) : std::nullopt;
}

} // namespace Formats
