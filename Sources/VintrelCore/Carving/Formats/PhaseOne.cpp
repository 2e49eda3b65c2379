#include "VintrelCore/Carving/Formats/PhaseOne.h"

#include "VintrelCore/Disk/RandomReader.h"

#include <algorithm>
#include <cstddef>

// Phase One documents its raw format nowhere; what is known of it is that a block lies right behind
// the header of a TIFF file, with the sensor's samples and a directory of its own.

namespace Formats {

namespace {

constexpr std::uint64_t blockOffset = 8; // places are counted from here
constexpr std::uint32_t maxEntries = 999;
constexpr std::uint64_t endLimit = 2'147'483'648;

template <std::endian order> struct BlockHeader {
    std::array<std::uint8_t, 4> byteOrder;  // 0  "IIII" or "MMMM"
    std::array<std::uint8_t, 4> mark;       // 4  "RawT", as a number
    Stored<std::uint32_t, order> directory; // 8
};

template <std::endian order> struct DirectoryHeader {
    Stored<std::uint32_t, order> entryCount, unused; // 0, 4
};

template <std::endian order> struct Entry {
    Stored<std::uint32_t, order> tag, type; //  0, 4
    Stored<std::uint32_t, order> size;      //  8  in bytes
    Stored<std::uint32_t, order> value;     // 12  or where it lies, beyond four bytes
};
static_assert(sizeof(Entry<std::endian::big>) == 16);

template <std::endian order> std::optional<std::uint64_t> endOfBlock(RandomReader& file)
{
    using Line = Entry<order>;
    const std::uint64_t directory = file.load<BlockHeader<order>>(blockOffset).directory;
    const auto header = file.load<DirectoryHeader<order>>(blockOffset + directory);
    if (header.entryCount == 0 || header.entryCount > maxEntries)
        return std::nullopt;
    std::uint64_t position = blockOffset + directory + sizeof header;
    std::uint64_t end = position + std::uint64_t { header.entryCount } * sizeof(Line);
    for (std::uint32_t i = 0; i < header.entryCount; ++i, position += sizeof(Line)) {
        const auto entry = file.load<Line>(position);
        if (entry.size > sizeof entry.value)
            end = std::max(end, blockOffset + entry.value + entry.size);
    }
    return end < endLimit ? std::optional(end) : std::nullopt;
}

} // namespace

std::optional<std::uint64_t> phaseOneEnd(RandomReader& file)
{
    constexpr std::uint64_t wordSize = 4;
    if (file.matches(blockOffset, "IIII") && file.matches(blockOffset + wordSize + 1, "waR"))
        return endOfBlock<std::endian::little>(file);
    if (file.matches(blockOffset, "MMMMRaw"))
        return endOfBlock<std::endian::big>(file);
    return std::nullopt;
}

} // namespace Formats
