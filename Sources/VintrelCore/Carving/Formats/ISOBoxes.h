#pragma once

#include "VintrelCore/Disk/RandomReader.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

// ISO/IEC 14496-12, the ISO base media file format: boxes in boxes.

namespace Formats {

/// What every box begins with.
struct ISOBoxHeader {
    BE32 size;                        // 0  the whole box; 1: the 64 bits behind say it
    std::array<std::uint8_t, 4> type; // 4
    BE64 largeSize;                   // 8
};
static_assert(sizeof(ISOBoxHeader) == 16 && offsetof(ISOBoxHeader, largeSize) == 8);

inline bool isPrintableInBox(std::uint8_t byte) { return byte >= 0x20 && byte <= 0x7E; }

struct ISOBox {
    std::uint64_t size;
    std::uint64_t headerSize;
    std::array<std::uint8_t, 4> type;

    static constexpr std::uint64_t sizeLimit = std::uint64_t { 1 } << 40;

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }

    /// None where none begins, or one that would go beyond `end`.
    static std::optional<ISOBox> at(RandomReader& file, std::uint64_t position, std::uint64_t end)
    {
        const auto header = file.load<ISOBoxHeader>(position);
        const bool isLarge = header.size == 1;
        const std::uint64_t size
            = isLarge ? std::uint64_t { header.largeSize } : std::uint64_t { header.size };
        const ISOBox box { size, isLarge ? 16u : 8u, header.type };
        const bool isNamed = (isPrintableInBox(box.type[0])
                                 || box.type[0] == 0xA9) // A9: "©", on QuickTime's texts
            && std::all_of(box.type.begin() + 1, box.type.end(), isPrintableInBox);
        if (position >= end || box.size < box.headerSize || box.size >= sizeLimit
            || box.size > end - position || !isNamed)
            return std::nullopt;
        return box;
    }
};

/// Whether the sample tables of the movie in `movie`, the inside of a "moov" box, name only places
/// in `data`, the insides of the "mdat" boxes in rising order, and pictures begin at those where
/// their kind shows it. False also when there are no tables.
bool areSamplesInPlace(RandomReader& file, ByteRange movie, std::span<const ByteRange> data);

} // namespace Formats
