#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/MailHeader.h"

#include <algorithm>

// RFC 5322 (mail), RFC 2046 (mails of several parts) and RFC 4155 (mailboxes). A mail of several
// parts has an end mark; another one ends where its text does, which is an estimate.

namespace Formats {

namespace {

constexpr std::uint64_t limit = std::uint64_t { 1 } << 36;
constexpr int maxEmptyLines = 2; // that programs put behind a mail

/// Where a mail or a mailbox ends, and whether an end mark says so.
struct MailEnd {
    std::uint64_t position;
    bool isMarked;
};

/// Whether a line of a mailbox is one that a mail follows: "From", an address and a date, of which
/// some programs write neither.
bool isSeparator(std::string_view line)
{
    if (line == "From ")
        return true;
    constexpr std::size_t minLength = 24; // that of the date alone
    constexpr std::string_view days[]
        = { " Mon ", " Tue ", " Wed ", " Thu ", " Fri ", " Sat ", " Sun " };
    return line.starts_with("From ") && line.size() > minLength
        && std::ranges::any_of(
            days, [&](std::string_view day) { return line.find(day) != std::string_view::npos; });
}

/// Where the next mail of a mailbox begins behind what mailing lists write below an end mark, which
/// ends at `position`; none when none does. At a sector it rather is another mailbox.
std::optional<std::uint64_t> behindEpilogue(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t longest = 65'536;
    TextLines lines(file, position, position + longest);
    bool wasEmpty = true;
    while (const auto line = lines.next()) {
        if (wasEmpty && isSeparator(line->text))
            return mayJoin(line->start, 1) ? std::optional(line->start) : std::nullopt;
        wasEmpty = line->text.empty();
    }
    return std::nullopt;
}

/// The end of the mail whose body comes next. `isInMailbox`: whether a separator ends it, too.
MailEnd endOfBody(RandomReader& file, TextLines& lines, const MailHeader& header, bool isInMailbox)
{
    const auto endMark = header.boundary.empty() ? std::string() : "--" + header.boundary + "--";
    MailEnd end { header.end, false };
    bool wasEmpty = true;
    while (const auto line = lines.next()) {
        if (isInMailbox && wasEmpty && isSeparator(line->text)) {
            lines.moveTo(line->start);
            return { line->start, true };
        }
        end.position = line->end;
        if (!endMark.empty() && line->text.starts_with(endMark)) {
            end = { behindEmptyLines(file, line->end, maxEmptyLines), true };
            if (isInMailbox)
                end.position = behindEpilogue(file, end.position).value_or(end.position);
            lines.moveTo(end.position);
            break;
        }
        wasEmpty = line->text.empty();
    }
    return end;
}

Found withEnd(const Candidate& candidate, MailEnd end, const char* ext)
{
    constexpr std::size_t addressAndTime = 50; // of the first mail in a mailbox
    auto found = candidate.found(end.position, ext,
        end.isMarked && !beginsAgain(candidate.file, end.position, addressAndTime));
    found.exact = end.isMarked;
    return found;
}

Found mailbox(const Candidate& candidate)
{
    TextLines lines(candidate.file, 0, limit);
    std::optional<MailEnd> end;
    while (const auto line = lines.next()) {
        const auto header = isSeparator(line->text) ? MailHeader::from(lines) : std::nullopt;
        if (!header)
            break;
        end = endOfBody(candidate.file, lines, *header, true);
    }
    return end ? withEnd(candidate, *end, "mbox") : std::nullopt;
}

} // namespace

Found mail(const Candidate& candidate)
{
    if (candidate.file.matches(0, "From "))
        return mailbox(candidate);
    constexpr std::uint64_t longestField = 1'024; // its first line
    if (!candidate.file.find(std::uint8_t { '\n' }, 0, longestField))
        return std::nullopt;
    TextLines lines(candidate.file, 0, limit);
    const auto header = MailHeader::from(lines);
    if (!header)
        return std::nullopt;
    return withEnd(candidate, endOfBody(candidate.file, lines, *header, false), "eml");
}

} // namespace Formats
