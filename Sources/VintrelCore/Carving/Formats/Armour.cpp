#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

#include <algorithm>

// RFC 7468 (PEM), RFC 9580 (OpenPGP, ASCII armour), RFC 4716 and the other key files of SSH
// programs: lines of Base64 between two lines that name what they hold. Programs write in front of
// a block what it says. And PuTTY's files, which count their lines instead.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 67'108'864;
constexpr int maxBlocks = 10'000;

/// How the two lines around a block are written.
struct Style {
    std::string_view begin, end, dashes;
};
constexpr Style styles[]
    = { { "-----BEGIN ", "-----END ", "-----" }, { "---- BEGIN ", "---- END ", " ----" } };

bool isBase64(std::string_view line)
{
    return std::ranges::all_of(line, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')
            || c == '+' || c == '/' || c == '=';
    });
}

/// Whether a line may stand between the two: Base64, or a header in front of it.
bool isInside(std::string_view line)
{
    constexpr std::string_view headers[] = { "Version: ", "Comment: ", "Hash: ", "Charset: ",
        "MessageID: ", "Proc-Type: ", "DEK-Info: ", "Subject: " };
    const auto trimmed = line.substr(0, line.find_last_not_of(' ') + 1);
    return isBase64(trimmed) || std::ranges::any_of(headers, [&](std::string_view name) {
        return line.starts_with(name);
    });
}

/// What a block is called; empty when the line begins none.
std::string labelOf(std::string_view line, const Style& style)
{
    constexpr std::size_t maxLabel = 64;
    const auto around = style.begin.size() + style.dashes.size();
    if (!line.starts_with(style.begin) || !line.ends_with(style.dashes) || line.size() < around)
        return {};
    const auto label = line.substr(style.begin.size(), line.size() - around);
    const bool isLabel = label.size() <= maxLabel && std::ranges::all_of(label, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')
            || c == ' ' || c == '.';
    });
    return isLabel ? std::string(label) : std::string();
}

/// A block between its two lines.
struct Block {
    std::uint64_t end;
    bool isPGP;
};

std::optional<Block> blockAt(RandomReader& file, std::uint64_t position)
{
    TextLines lines(file, position, position + limit);
    const auto first = lines.next();
    const auto& style = first && first->text.starts_with(styles[1].begin) ? styles[1] : styles[0];
    const auto label = first ? labelOf(first->text, style) : std::string();
    if (label.empty())
        return std::nullopt;
    std::string last(style.end);
    last.append(label).append(style.dashes);
    bool hasContent = false;
    while (const auto line = lines.next()) {
        if (line->text == last)
            return hasContent ? std::optional(Block { line->end, label.starts_with("PGP ") })
                              : std::nullopt;
        if (!isInside(line->text))
            break;
        hasContent |= !line->text.empty();
    }
    return std::nullopt;
}

/// Whether the file begins with what a program tells of the block behind it.
bool beginsWithExplanation(RandomReader& file)
{
    constexpr std::string_view beginnings[] = { "Bag Attributes\n    ", "Certificate:\n    Data:\n",
        "Certificate Request:\n    Data:\n", "Private-Key: (", "RSA Private-Key: (",
        "Public-Key: (", "Public Key Info:\n\t", "subject=" };
    return std::ranges::any_of(
        beginnings, [&](std::string_view text) { return file.matches(0, text); });
}

/// Where the next block begins behind the text at `position`; none when none does. At a sector it
/// rather is a file of its own.
std::optional<std::uint64_t> behindExplanation(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint64_t longest = 65'536;
    TextLines lines(file, position, position + longest);
    while (const auto line = lines.next()) {
        if (line->text.starts_with(styles[0].begin))
            return hasAtSector(file, position, line->start + 1, { &styles[0].begin, 1 })
                ? std::nullopt
                : std::optional(line->start);
        if (!line->isEnded)
            break;
    }
    return std::nullopt;
}

/// The block behind the one that ends at `position`, or the first one.
std::optional<Block> nextBlock(RandomReader& file, std::uint64_t position)
{
    constexpr int maxEmptyLines = 2;
    if (auto block = blockAt(file, behindEmptyLines(file, position, maxEmptyLines)))
        return block;
    const bool mayExplain = position == 0 ? beginsWithExplanation(file) : mayJoin(position, 1);
    const auto begin = mayExplain ? behindExplanation(file, position) : std::nullopt;
    return begin ? blockAt(file, *begin) : std::nullopt;
}

} // namespace

Found armour(const Candidate& candidate)
{
    auto& file = candidate.file;
    std::uint64_t position = 0;
    bool isPGP = false;
    for (int count = 0; count < maxBlocks && position < limit; ++count) {
        const auto block = nextBlock(file, position);
        if (!block)
            break;
        position = block->end;
        isPGP |= block->isPGP;
    }
    if (position == 0 || !candidate.fits(position))
        return std::nullopt;
    return candidate.proved(position, isPGP ? "asc" : "pem");
}

Found puttyKey(const Candidate& candidate)
{
    constexpr int maxLines = 10'000;
    TextLines lines(candidate.file, 0, limit);
    const auto first = lines.next();
    if (!first || !first->text.starts_with("PuTTY-User-Key-File-"))
        return std::nullopt;
    for (int count = 0; count < maxLines; ++count) {
        const auto line = lines.next();
        if (!line || (!isBase64(line->text) && line->text.find(": ") == std::string_view::npos))
            break;
        if (line->text.starts_with("Private-MAC: "))
            return candidate.proved(line->end, "ppk");
    }
    return std::nullopt;
}

} // namespace Formats
