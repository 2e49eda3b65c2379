#include "VintrelCore/Carving/Formats/TextLines.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <array>

namespace Formats {

namespace {

constexpr std::size_t maxLine = 1'048'576; // a picture as one line
constexpr std::size_t workPerByte = 2;
constexpr std::size_t workPerLine = 256; // short lines take longer than long ones

constexpr auto textBytes = [] {
    std::array<bool, 256> isText {};
    for (std::size_t byte = 0x20; byte < isText.size(); ++byte)
        isText[byte] = byte != 0x7F;
    for (const auto control : { '\t', '\n', '\f', '\r', '\x0E', '\x0F', '\x1B' })
        isText[static_cast<std::uint8_t>(control)] = true;
    return isText;
}();

} // namespace

bool isTextByte(std::uint8_t byte) { return textBytes[byte]; }

std::optional<TextLines::Line> TextLines::next()
{
    const std::uint64_t start = position_;
    text_.clear();
    file_.addWork(workPerLine);
    while (position_ < limit_ && text_.size() < maxLine) {
        const auto bytes = file_.stretch(position_).span();
        const auto end = std::ranges::find_if(
            bytes, [](std::uint8_t byte) { return byte == '\n' || !isTextByte(byte); });
        text_.append(bytes.begin(), end);
        const auto count = static_cast<std::size_t>(end - bytes.begin());
        file_.addWork(count * workPerByte);
        position_ += count;
        if (end == bytes.end() && !bytes.empty())
            continue;
        const bool isEnded = end != bytes.end() && *end == '\n';
        position_ += isEnded ? 1 : 0;
        if (isEnded && text_.ends_with('\r'))
            text_.pop_back();
        if (position_ == start)
            return std::nullopt;
        return Line { text_, start, position_, isEnded };
    }
    return std::nullopt;
}

bool hasAtSector(RandomReader& file, std::uint64_t from, std::uint64_t end,
    std::span<const std::string_view> marks)
{
    constexpr std::uint64_t sectorSize = 512;
    for (auto at = roundDown(from, sectorSize) + sectorSize; at < end && !file.isExhausted();
         at += sectorSize)
        if (std::ranges::any_of(
                marks, [&](std::string_view mark) { return file.matches(at, mark); }))
            return true;
    return false;
}

bool beginsAgain(RandomReader& file, std::uint64_t end, std::size_t compared)
{
    const auto bytes = file.bytes(0, compared);
    const std::string own(bytes.begin(), bytes.end());
    const std::string_view mark = own;
    return hasAtSector(file, 0, end, { &mark, 1 });
}

std::uint64_t behindEmptyLines(RandomReader& file, std::uint64_t position, int most)
{
    for (int count = 0; count < most; ++count) {
        if (file.matches(position, "\r\n"))
            position += 2;
        else if (file.matches(position, "\n"))
            position += 1;
        else
            break;
    }
    return position;
}

} // namespace Formats
