#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"
#include "VintrelCore/Foundation/Text.h"

// ISO 10303-21 (STEP), and the "DXF Reference" (Autodesk), pairs of a code and a value in two
// lines: drawings in text that end with a line of their own.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 4'294'967'296;

/// The number in a line of nothing else; none otherwise.
std::optional<std::uint32_t> groupCode(std::string_view line)
{
    constexpr std::uint32_t maxCode = 1071;
    constexpr std::string_view blanks = " \t";
    const auto from = line.find_first_not_of(blanks);
    if (from == std::string_view::npos)
        return std::nullopt;
    const auto last = line.find_last_not_of(blanks);
    const auto code = Text::number<std::uint32_t>(line.substr(from, last + 1 - from));
    return code && *code <= maxCode ? code : std::nullopt;
}

} // namespace

Found step(const Candidate& candidate)
{
    TextLines lines(candidate.file, 0, limit);
    const auto first = lines.next();
    if (!first || !first->text.starts_with("ISO-10303-21;"))
        return std::nullopt;
    while (const auto line = lines.next())
        if (line->text.starts_with("END-ISO-10303-21;"))
            return candidate.found(line->end, "stp", !beginsAgain(candidate.file, line->end));
    return std::nullopt;
}

Found dxf(const Candidate& candidate)
{
    constexpr std::uint32_t comment = 999;
    constexpr std::uint32_t structure = 0;
    TextLines lines(candidate.file, 0, limit);
    bool isFirst = true;
    while (const auto line = lines.next()) {
        const auto code = groupCode(line->text);
        const auto value = code ? lines.next() : std::nullopt;
        if (!value)
            break;
        if (isFirst && *code != comment && (*code != structure || value->text != "SECTION"))
            break;
        isFirst = isFirst && *code == comment;
        if (*code == structure && value->text == "EOF")
            return candidate.found(value->end, "dxf", !beginsAgain(candidate.file, value->end));
    }
    return std::nullopt;
}

} // namespace Formats
