#include "VintrelCore/Content/Formats/PDFText.h"

#include <algorithm>
#include <charconv>

namespace Content::Formats {

std::string_view pdfValue(std::string_view text, std::string_view key)
{
    constexpr std::string_view delimiters = "/[<(";
    int depth = 0;
    for (std::size_t at = 0; at + 1 < text.size(); ++at) {
        const auto pair = text.substr(at, 2);
        if (pair == "<<" || pair == ">>") {
            depth += pair == "<<" ? 1 : -1;
            ++at;
        } else if (depth == 1 && text.substr(at).starts_with(key)) {
            const auto value = text.substr(at + key.size());
            if (!value.empty()
                && (isPDFSpace(static_cast<std::uint8_t>(value.front()))
                    || delimiters.find(value.front()) != std::string_view::npos))
                return value;
        }
    }
    return {};
}

std::string_view skipPDFSpace(std::string_view text, std::string_view more)
{
    while (!text.empty()
        && (isPDFSpace(static_cast<std::uint8_t>(text.front()))
            || more.find(text.front()) != std::string_view::npos))
        text.remove_prefix(1);
    return text;
}

std::optional<std::uint64_t> takePDFNumber(std::string_view& text)
{
    text = skipPDFSpace(text);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return error == std::errc() ? std::optional(value) : std::nullopt;
}

} // namespace Content::Formats
