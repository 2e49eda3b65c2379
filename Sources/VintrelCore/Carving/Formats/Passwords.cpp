#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Carving/Formats/TextLines.h"

// RFC 8259 (JSON), of which only what password managers export is carved.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 268'435'456;

/// The end of the object at the beginning; none when it does not end before a byte that is no text.
std::optional<std::uint64_t> behindObject(RandomReader& file)
{
    constexpr std::size_t workPerByte = 2;
    int depth = 0;
    bool isInText = false;
    bool isEscaped = false;
    std::uint64_t position = 0;
    while (position < limit) {
        const auto bytes = file.stretch(position).span();
        if (bytes.empty())
            break;
        file.addWork(bytes.size() * workPerByte);
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            const auto byte = bytes[at];
            if (!isTextByte(byte))
                return std::nullopt;
            if (isEscaped)
                isEscaped = false;
            else if (byte == '"')
                isInText = !isInText;
            else if (isInText)
                isEscaped = byte == '\\';
            else if (byte == '{' || byte == '[')
                ++depth;
            else if ((byte == '}' || byte == ']') && --depth == 0)
                return position + at + 1;
        }
        position += bytes.size();
    }
    return std::nullopt;
}

} // namespace

Found passwordExport(const Candidate& candidate)
{
    auto& file = candidate.file;
    constexpr std::uint64_t maxIndent = 16;
    if (!file.find("\"encrypted\":", 0, maxIndent))
        return std::nullopt;
    const auto end = behindObject(file);
    if (!end)
        return std::nullopt;
    return candidate.found(behindEmptyLines(file, *end, 1), "json", !beginsAgain(file, *end));
}

} // namespace Formats
