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

} // namespace

Found pdf(const Candidate& candidate)
{
    auto& file = candidate.file;
    if (!file.matches(0, header))
        return std::nullopt;
    if (const auto length = linearisedLength(file)) {
        auto found = candidate.found(*length, "pdf");
        found.exact = endsAt(file, *length);
        return found;
    }

    std::uint64_t end = 0;
    while (const auto mark = candidate.find(candidate.searches.pdfEnds, end, end + maxSearch)) {
        if (isInterrupted(candidate, std::max<std::uint64_t>(end, 1), *mark))
            break;
        end = *mark + endOfFile.size();
        if (file.u8(end) == '\r')
            ++end;
        if (file.u8(end) == '\n')
            ++end;
        if (!isUpdated(file, end))
            break;
    }
    if (end == 0)
        return std::nullopt;
    auto found = candidate.found(end, "pdf");
    found.exact = false; // more updates may follow unseen
    return found;
}

} // namespace Formats
