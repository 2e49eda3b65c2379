#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"
#include "VintrelCore/Foundation/Text.h"

#include <algorithm>

// RFC 6350 (vCard) and RFC 5545 (iCalendar): objects between a line that begins and one that ends
// them, inside each other. Capitals and small letters are the same in their names.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr int maxDepth = 16;

/// What begins the objects that files consist of.
constexpr struct {
    std::string_view line;
    const char* ext;
} kinds[] = { { "begin:vcard", "vcf" }, { "begin:vcalendar", "ics" } };
constexpr std::string_view beginnings[]
    = { "BEGIN:VCARD", "BEGIN:VCALENDAR", "begin:vcard", "begin:vcalendar" };

/// Whether a line begins with these small letters.
bool beginsWith(std::string_view line, std::string_view word)
{
    return Text::lowerCase(line.substr(0, word.size())) == word;
}

/// Where the object at `position` ends, whose first line is `begin`; none when it does not.
std::optional<std::uint64_t> behindObject(
    RandomReader& file, std::uint64_t position, std::string_view begin)
{
    TextLines lines(file, position, limit);
    const auto first = lines.next();
    if (!first || Text::lowerCase(first->text) != begin)
        return std::nullopt;
    int depth = 1;
    while (const auto line = lines.next()) {
        if (beginsWith(line->text, "begin:"))
            ++depth;
        if (beginsWith(line->text, "end:"))
            --depth;
        if (depth == 0) // another file inside: the end of this one is lost
            return hasAtSector(file, position, line->end, beginnings) ? std::nullopt
                                                                      : std::optional(line->end);
        if (depth > maxDepth)
            break;
    }
    return std::nullopt;
}

} // namespace

Found contacts(const Candidate& candidate)
{
    constexpr int maxEmptyLines = 4;
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    auto& file = candidate.file;
    const std::uint64_t start = file.matches(0, byteOrderMark) ? byteOrderMark.size() : 0;
    TextLines lines(file, start, limit);
    const auto first = lines.next();
    const auto* const kind = std::ranges::find_if(
        kinds, [&](const auto& row) { return first && Text::lowerCase(first->text) == row.line; });
    if (kind == std::end(kinds))
        return std::nullopt;
    std::uint64_t end = start;
    while (end < limit) { // many in one file
        const auto next = behindObject(
            file, end == start ? start : behindEmptyLines(file, end, maxEmptyLines), kind->line);
        if (!next)
            break;
        end = *next;
    }
    return end > start ? Found(candidate.proved(end, kind->ext)) : std::nullopt;
}

} // namespace Formats
