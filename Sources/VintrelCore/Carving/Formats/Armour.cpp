#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

#include <algorithm>

// RFC 7468 (PEM), RFC 4880 (OpenPGP, ASCII armour) and the key files of SSH programs: lines of
// Base64 between two lines that name what they hold. And PuTTY's, which count their lines instead.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 67'108'864;
constexpr int maxBlocks = 10'000;
constexpr std::string_view dashes = "-----";
constexpr std::string_view begin = "-----BEGIN ";
constexpr std::string_view end = "-----END ";

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
    constexpr std::string_view headers[] = {
        "Version: ", "Comment: ", "Hash: ", "Charset: ", "MessageID: ", "Proc-Type: ", "DEK-Info: "
    };
    const auto trimmed = line.substr(0, line.find_last_not_of(' ') + 1);
    return isBase64(trimmed) || std::ranges::any_of(headers, [&](std::string_view name) {
        return line.starts_with(name);
    });
}

/// What a block is called; empty when the line begins none.
std::string labelOf(std::string_view line)
{
    constexpr std::size_t maxLabel = 64;
    if (!line.starts_with(begin) || !line.ends_with(dashes)
        || line.size() < begin.size() + dashes.size())
        return {};
    const auto label = line.substr(begin.size(), line.size() - begin.size() - dashes.size());
    const bool isLabel = label.size() <= maxLabel && std::ranges::all_of(label, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ' || c == '.';
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
    const auto label = first ? labelOf(first->text) : std::string();
    if (label.empty())
        return std::nullopt;
    std::string last(end);
    last.append(label).append(dashes);
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

} // namespace

Found armour(const Candidate& candidate)
{
    constexpr int maxEmptyLines = 2; // between blocks
    auto& file = candidate.file;
    std::uint64_t position = 0;
    bool isPGP = false;
    for (int count = 0; count < maxBlocks && position < limit; ++count) {
        const auto from = count == 0 ? 0 : behindEmptyLines(file, position, maxEmptyLines);
        const auto block = blockAt(file, from);
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
