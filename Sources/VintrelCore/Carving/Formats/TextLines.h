#pragma once

#include "VintrelCore/Disk/RandomReader.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Formats {

/// Reads a file of text line by line.
class TextLines {
public:
    struct Line {
        std::string_view text; ///< without what ends it; valid until the next line is read
        std::uint64_t start;   ///< position of its first byte
        std::uint64_t end;     ///< position behind it and what ends it
        bool isEnded;          ///< whether a line feed ends it, and not a byte that is no text
    };

    /// From byte `position` of the file on, up to `limit`.
    TextLines(RandomReader& file, std::uint64_t position, std::uint64_t limit)
        : file_(file)
        , position_(position)
        , limit_(limit)
    {
    }

    /// The next line. None where no byte of text follows, at the end of the source, and for a line
    /// that is longer than any program writes.
    std::optional<Line> next();

    /// Begins anew at this byte.
    void moveTo(std::uint64_t position) { position_ = position; }

private:
    RandomReader& file_;
    std::uint64_t position_;
    std::uint64_t limit_;
    std::string text_;
};

/// Whether a byte stands in texts of any encoding that has ASCII in it: no control character but
/// those for blanks, lines, pages and shifts.
bool isTextByte(std::uint8_t byte);

/// Whether one of the marks stands at a sector behind byte `from` and in front of `end`.
bool hasAtSector(RandomReader& file, std::uint64_t from, std::uint64_t end,
    std::span<const std::string_view> marks);

/// The same of the first bytes of this file. In a text whose own end is lost, nothing else tells
/// where the lines of the next one begin. `compared`: how many bytes tell it from other texts.
bool beginsAgain(RandomReader& file, std::uint64_t end, std::size_t compared = 32);

/// Where the empty lines that begin at `position` end, of which there may be `most`.
std::uint64_t behindEmptyLines(RandomReader& file, std::uint64_t position, int most);

} // namespace Formats
