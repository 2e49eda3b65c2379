#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

#include <algorithm>

// "Scalable Vector Graphics (SVG) 1.1" and "Extensible Markup Language (XML) 1.0": a picture ends
// with the element that everything else lies in.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 268'435'456;
constexpr std::uint64_t maxProlog = 65'536; // what stands in front of the root element
constexpr std::size_t workPerByte = 2;
constexpr int maxDepth = 10'000;

/// Reads marks of XML one by one.
class Markup {
public:
    explicit Markup(RandomReader& file)
        : file_(file)
    {
    }

    std::uint64_t position() const { return position_; }

    /// Moves to the next "<"; false where a byte comes first that is no text.
    bool findMark()
    {
        return skipTo([](std::uint8_t byte) { return byte == '<'; });
    }
    bool isAt(std::string_view text) { return file_.matches(position_, text); }
    void skip(std::uint64_t count) { position_ += count; }

    /// Moves behind this text; false where a byte comes first that is no text.
    bool skipBehind(std::string_view text)
    {
        const auto first = static_cast<std::uint8_t>(text.front());
        while (skipTo([=](std::uint8_t byte) { return byte == first; })) {
            if (isAt(text)) {
                skip(text.size());
                return true;
            }
            skip(1);
        }
        return false;
    }

    /// Moves behind the tag or declaration at the position; false where it does not end.
    bool skipTag()
    {
        isEmptyElement_ = false;
        while (skipTo([](std::uint8_t byte) {
            return byte == '>' || byte == '"' || byte == '\'' || byte == '[';
        })) {
            const auto byte = file_.u8(position_++);
            if (byte == '>') {
                isEmptyElement_ = file_.u8(position_ - 2) == '/';
                return true;
            }
            const bool isSkipped = byte == '[' ? skipBehind("]") // declarations inside DOCTYPE
                                               : skipBehind(byte == '"' ? "\"" : "'");
            if (!isSkipped)
                return false;
        }
        return false;
    }
    /// Whether the tag that was skipped last has no content and no end tag.
    bool isEmptyElement() const { return isEmptyElement_; }

private:
    template <class Wanted> bool skipTo(Wanted wanted)
    {
        while (position_ < limit) {
            const auto bytes = file_.stretch(position_).span();
            std::size_t at = 0;
            while (at < bytes.size() && !wanted(bytes[at]) && isTextByte(bytes[at]))
                ++at;
            file_.addWork((at + 1) * workPerByte);
            position_ += at;
            if (at < bytes.size() || bytes.empty())
                return !bytes.empty() && wanted(bytes[at]);
        }
        return false;
    }

    RandomReader& file_;
    std::uint64_t position_ = 0;
    bool isEmptyElement_ = false;
};

/// Moves behind a comment, an instruction or raw text at the position. None when it is none of
/// them, false when it does not end.
std::optional<bool> skipOther(Markup& markup)
{
    constexpr struct {
        std::string_view begin, end;
    } others[] = { { "<!--", "-->" }, { "<![CDATA[", "]]>" }, { "<?", "?>" } };
    for (const auto& [begin, end] : others)
        if (markup.isAt(begin))
            return markup.skipBehind(end);
    if (markup.isAt("<!"))
        return markup.skipTag();
    return std::nullopt;
}

/// Whether the element at the position is a picture, and not one whose name only begins like it.
bool isRoot(Markup& markup)
{
    constexpr std::string_view roots[]
        = { "<svg ", "<svg\t", "<svg\n", "<svg\r", "<svg>", "<svg:svg" };
    return std::ranges::any_of(roots, [&](std::string_view root) { return markup.isAt(root); });
}

/// Moves to the root element; false when it is no picture.
bool findRoot(Markup& markup)
{
    while (markup.findMark() && markup.position() < maxProlog) {
        const auto isOther = skipOther(markup);
        if (!isOther)
            return isRoot(markup);
        if (!*isOther)
            break;
    }
    return false;
}

/// Moves behind the root element; false when it does not end.
bool skipRoot(Markup& markup)
{
    int depth = 0;
    while (markup.findMark() && depth < maxDepth) {
        if (const auto isOther = skipOther(markup)) {
            if (!*isOther)
                break;
            continue;
        }
        const bool isEnd = markup.isAt("</");
        if (!markup.skipTag())
            break;
        if (isEnd)
            --depth;
        else if (!markup.isEmptyElement())
            ++depth;
        if (depth <= 0)
            return depth == 0;
    }
    return false;
}

} // namespace

Found svg(const Candidate& candidate)
{
    Markup markup(candidate.file);
    if (!findRoot(markup) || !skipRoot(markup))
        return std::nullopt;
    constexpr std::string_view beginnings[] = { "<svg ", "<?xml " };
    const auto end = behindEmptyLines(candidate.file, markup.position(), 1);
    return candidate.found(end, "svg", !hasAtSector(candidate.file, 0, end, beginnings));
}

} // namespace Formats
