#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

#include <algorithm>

// RFC 6350 (vCard) and RFC 5545 (iCalendar): objects between a line that begins and one that ends
// them, inside each other.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr int maxDepth = 16;

/// The objects that files consist of.
constexpr std::string_view contact = "BEGIN:VCARD";
constexpr std::string_view calendar = "BEGIN:VCALENDAR";
constexpr std::string_view beginnings[] = { contact, calendar };

/// Where the object at `position` ends, whose first line is `begin`; none when it does not.
std::optional<std::uint64_t> behindObject(
    RandomReader& file, std::uint64_t position, std::string_view begin)
{
    TextLines lines(file, position, limit);
    const auto first = lines.next();
    if (!first || first->text != begin)
        return std::nullopt;
    int depth = 1;
    while (const auto line = lines.next()) {
        if (line->text.starts_with("BEGIN:"))
            ++depth;
        if (line->text.starts_with("END:"))
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
    auto& file = candidate.file;
    const auto* const begin = std::ranges::find_if(
        beginnings, [&](std::string_view mark) { return file.matches(0, mark); });
    if (begin == std::end(beginnings))
        return std::nullopt;
    std::uint64_t end = 0;
    while (end < limit) { // many in one file
        const auto next
            = behindObject(file, end == 0 ? 0 : behindEmptyLines(file, end, maxEmptyLines), *begin);
        if (!next)
            break;
        end = *next;
    }
    return end > 0 ? Found(candidate.proved(end, *begin == contact ? "vcf" : "ics")) : std::nullopt;
}

} // namespace Formats
