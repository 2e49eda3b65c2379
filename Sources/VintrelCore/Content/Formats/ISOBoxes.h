#pragma once

#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Foundation/ByteRange.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>

// ISO/IEC 14496-12, the ISO base media file format: boxes in boxes.

namespace Content::Formats {

struct ISOBoxHeader {
    BE32 size;                        // 0  the whole box; 1: the 64 bits behind say it
    std::array<std::uint8_t, 4> type; // 4
};
static_assert(sizeof(ISOBoxHeader) == 8);

/// A box that lies at a place of the file.
struct ISOBox {
    std::uint64_t start = 0;
    std::uint64_t headerSize = 0;
    std::uint64_t size = 0; ///< of the whole box
    std::array<std::uint8_t, 4> type {};

    static constexpr std::uint64_t sizeLimit = std::uint64_t { 1 } << 40;
    static constexpr std::uint64_t maxHeaderSize = 16;

    bool is(std::string_view name) const { return ByteView(type).matches(name, 0); }
    std::uint64_t end() const { return start + size; }
    ByteRange inside() const { return { start + headerSize, end() }; }

    /// The box whose header lies at `position`, whatever its name; none where no length can be one,
    /// or not all of the header is there.
    static std::optional<ISOBox> at(FileBytes& file, std::uint64_t position)
    {
        const auto header = load<ISOBoxHeader>(file, position);
        if (!header)
            return std::nullopt;
        ISOBox box { position, sizeof(ISOBoxHeader), header->size, header->type };
        if (box.size == 1) {
            const auto large = load<BE64>(file, position + sizeof(ISOBoxHeader));
            box.headerSize = maxHeaderSize;
            box.size = large ? std::uint64_t { *large } : 0;
        }
        if (box.size < box.headerSize || box.size >= sizeLimit)
            return std::nullopt;
        return box;
    }
};

/// The inside of the first box of this name in `range`; none when there is none.
inline std::optional<ByteRange> findBox(FileBytes& file, ByteRange range, std::string_view name)
{
    constexpr int maxBoxes = 1000;
    for (int count = 0; count < maxBoxes && range.start < range.end; ++count) {
        const auto box = ISOBox::at(file, range.start);
        if (!box || box->size > range.end - range.start)
            return std::nullopt;
        if (box->is(name))
            return box->inside();
        range.start = box->end();
    }
    return std::nullopt;
}

/// The same with a box in a box.
inline std::optional<ByteRange> findBox(
    FileBytes& file, ByteRange range, std::initializer_list<std::string_view> names)
{
    for (const auto name : names) {
        const auto box = findBox(file, range, name);
        if (!box)
            return std::nullopt;
        range = *box;
    }
    return range;
}

} // namespace Content::Formats
