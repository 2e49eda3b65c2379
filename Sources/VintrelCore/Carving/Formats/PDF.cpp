#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <charconv>

// ISO 32000-1: file structure with its header, trailer and incremental updates, and linearised
// files.

namespace Formats {

namespace {

constexpr std::size_t headSize
    = 1024; // a linearised file has its dictionary here, the first object of all
constexpr std::uint64_t minLinearised = 65;
constexpr std::uint64_t linearisedLimit = 4'294'967'296;
constexpr std::uint64_t maxSearch = 1'073'741'824;
constexpr std::size_t lookAhead = 1024;
constexpr std::string_view header = "%PDF-";
constexpr std::string_view endOfFile = "%%EOF";

std::string textAt(RandomReader& file, std::uint64_t position, std::size_t count)
{
    const auto bytes = file.bytes(position, count);
    return { bytes.begin(), bytes.end() };
}

/// The length that a linearised file states about itself.
std::optional<std::uint64_t> linearisedLength(RandomReader& file)
{
    const auto head = textAt(file, 0, headSize);
    const auto linearised = head.find("/Linearized");
    if (linearised == std::string::npos)
        return std::nullopt;
    const auto dictionary = head.rfind("<<", linearised);
    const auto key = head.find("/L ", dictionary == std::string::npos ? linearised : dictionary);
    if (key == std::string::npos)
        return std::nullopt;
    std::uint64_t length = 0;
    std::from_chars(head.data() + key + 3, head.data() + head.size(), length);
    return length < minLinearised || length >= linearisedLimit ? std::nullopt
                                                               : std::optional(length);
}

/// Whether a file ends at `length`. Where it does not, the length is that of a lost file, which
/// must not hide what lies there now.
bool endsAt(RandomReader& file, std::uint64_t length)
{
    const auto tailSize = std::min<std::uint64_t>(length, lookAhead);
    return textAt(file, length - tailSize, static_cast<std::size_t>(tailSize)).find(endOfFile)
        != std::string::npos;
}

/// Whether an update of the file goes on at `position`. What follows another file's beginning is
/// that file's.
bool isUpdated(RandomReader& file, std::uint64_t position)
{
    auto text = textAt(file, position, lookAhead);
    text.resize(std::min(text.find(header), text.size()));
    return text.find(" obj") != std::string::npos || text.find("xref") != std::string::npos;
}

/// Whether another file begins before `end`. Files lie at whole sectors; what a file holds inside
/// rarely does.
bool isInterrupted(const Candidate& candidate, std::uint64_t position, std::uint64_t end)
{
    constexpr std::uint64_t sectorSize = 512;
    while (const auto other = candidate.find(candidate.searches.pdfStarts, position, end)) {
        if (*other % sectorSize == 0)
            return true;
        position = *other + 1;
    }
    return false;
}

/// The position behind the end mark at `mark`, and the line that it stands in.
std::uint64_t behindMark(RandomReader& file, std::uint64_t mark)
{
    std::uint64_t end = mark + endOfFile.size();
    if (file.u8(end) == '\r')
        ++end;
    if (file.u8(end) == '\n')
        ++end;
    return end;
}

/// Whose an end mark is. The number in front of it tells where in the file the table of its objects
/// begins, or the object that holds the table; files that were patched by hand have none.
enum class Owner : std::uint8_t { self, other, unknown };

Owner ownerOf(RandomReader& file, std::uint64_t mark)
{
    constexpr std::string_view keyword = "startxref";
    constexpr std::uint64_t maxLength = 64; // of the keyword's line and the number's
    const std::uint64_t from = mark - std::min(mark, maxLength);
    const auto text = textAt(file, from, static_cast<std::size_t>(mark - from));
    const auto at = text.rfind(keyword);
    if (at == std::string::npos)
        return Owner::unknown;
    const auto digits = text.find_first_of("0123456789", at);
    std::uint64_t table = 0;
    if (digits != std::string::npos)
        std::from_chars(text.data() + digits, text.data() + text.size(), table);
    if (table == 0 || table >= mark)
        return Owner::other;
    constexpr std::size_t shownSize = 8; // some writers count a line end in, or out
    const auto shown = textAt(file, table, shownSize);
    const auto first = shown.find_first_not_of("\r\n ");
    const bool isTable = first != std::string::npos
        && (shown.compare(first, 4, "xref") == 0 || (shown[first] >= '0' && shown[first] <= '9'));
    return isTable ? Owner::self : Owner::other;
}

/// What the search for the end of a file has found.
struct Ends {
    std::uint64_t own = 0;  ///< behind the last mark that is the file's own; 0 for none
    std::uint64_t any = 0;  ///< behind the first one that no update follows, whosever it is
    bool isForeign = false; ///< whether that one is another file's
};

/// Searches on from `begin`, up to where another file begins.
Ends searchEnds(const Candidate& candidate, std::uint64_t begin)
{
    auto& file = candidate.file;
    Ends ends;
    std::uint64_t end = begin;
    bool hasAny = false;
    while (const auto mark = candidate.find(candidate.searches.pdfEnds, end, end + maxSearch)) {
        if (file.isExhausted() || isInterrupted(candidate, std::max<std::uint64_t>(end, 1), *mark))
            break;
        end = behindMark(file, *mark);
        const auto owner = ownerOf(file, *mark);
        const bool isContinued = isUpdated(file, end);
        if (owner == Owner::self)
            ends.own = end;
        if (!hasAny) {
            ends.any = end;
            ends.isForeign = owner == Owner::other;
        }
        hasAny = hasAny || !isContinued;
        if (!isContinued && owner != Owner::other)
            break;
    }
    return ends;
}

} // namespace

Found pdf(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (!file.matches(0, header))
        return std::nullopt;
    auto length = linearisedLength(file);
    const bool isLinearised = length && endsAt(file, *length);
    if (isLinearised && !isUpdated(file, *length))
        return candidate.found(*length, "pdf");

    const auto ends = searchEnds(candidate, isLinearised ? *length : 0);
    if (ends.own == 0 && isLinearised)
        return candidate.found(*length, "pdf");
    const auto size = ends.own != 0 ? ends.own : ends.any;
    if (size == 0 && !length)
        return std::nullopt;
    auto found = candidate.found(size != 0 ? size : *length, "pdf");
    found.exact = false; // more updates may follow unseen
    found.isOpenEnded = ends.own == 0 && ends.isForeign;
    return found;
}

} // namespace Formats
