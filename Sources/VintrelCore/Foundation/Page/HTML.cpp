#include "VintrelCore/Foundation/Page/HTML.h"

#include "VintrelCore/Foundation/Page/EmbeddedText.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>

namespace HTML {

namespace {

/// A strip is so many units wide; it is drawn as wide as the page.
constexpr double stripWidth = 1'000;
/// What is there is seen, however small its share.
constexpr double leastPieceWidth = 1;

bool staysInURL(char character)
{
    return Text::isDigit(character)
        || (Text::lowerCase(character) >= 'a' && Text::lowerCase(character) <= 'z')
        || std::string_view("-._~/").find(character) != std::string_view::npos;
}

std::string policy(const EmbeddedText* script)
{
    std::string text = "default-src 'none'; base-uri 'none'; form-action 'none'; style-src '";
    text.append(pageStyle.hash).append("'");
    if (script != nullptr)
        text.append("; script-src '").append(script->hash).append("'");
    return text + "; img-src 'self' file:; media-src 'self' file:";
}

std::string tenths(double value)
{
    const auto count = static_cast<std::uint64_t>(value * 10);
    return std::to_string(count / 10) + "." + std::to_string(count % 10);
}

} // namespace

std::string escaped(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (const char character : Unicode::escaped(text)) {
        switch (character) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\'':
            result += "&#39;";
            break;
        default:
            result += character;
        }
    }
    return result;
}

std::string relativeURL(std::string_view path)
{
    std::string url = "./";
    for (const char character : path) {
        if (staysInURL(character))
            url += character;
        else
            url.append("%").append(Text::hex(static_cast<unsigned char>(character), 2));
    }
    return url;
}

std::string percent(std::uint64_t part, std::uint64_t whole)
{
    const double share
        = whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole) * 1'000;
    auto permille = static_cast<std::uint64_t>(share);
    if (permille >= 1'000 && part < whole)
        permille = 999;
    if (permille == 0 && part > 0)
        return "under 0,1 %";
    return std::to_string(permille / 10) + "," + std::to_string(permille % 10) + " %";
}

std::string opening(std::string_view title, const EmbeddedText* script)
{
    const auto heading = escaped(title);
    std::string page = "<!DOCTYPE html>\n<html lang=\"da\">\n<head>\n<meta charset=\"utf-8\">\n"
                       "<meta http-equiv=\"Content-Security-Policy\" content=\"";
    page += policy(script);
    page += "\">\n<meta name=\"referrer\" content=\"no-referrer\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            "<base target=\"_blank\">\n<title>";
    page.append(heading).append("</title>\n<style>").append(pageStyle.text).append("</style>\n");
    if (script != nullptr)
        page.append("<script>").append(script->text).append("</script>\n");
    return page.append("</head>\n<body>\n<h1>").append(heading).append("</h1>\n");
}

std::string closing() { return "</body>\n</html>\n"; }

std::string strip(std::span<const StripPiece> pieces, std::string_view description)
{
    double whole = 0;
    for (const auto& piece : pieces)
        whole += static_cast<double>(piece.length);
    const auto widthOf = [whole](const StripPiece& piece) {
        const double width = static_cast<double>(piece.length) / whole * stripWidth;
        return piece.length == 0 ? 0 : std::max(width, leastPieceWidth);
    };
    double total = 0;
    for (const auto& piece : pieces)
        total += widthOf(piece);
    std::string drawing = R"(<svg class="strip" viewBox="0 0 1000 40" preserveAspectRatio="none" )"
                          R"(role="img" aria-label=")";
    drawing.append(escaped(description)).append("\">");
    double start = 0;
    for (const auto& piece : pieces) {
        if (piece.length == 0)
            continue;
        const double width = widthOf(piece) / total * stripWidth;
        drawing.append(R"(<rect class=")").append(piece.kind);
        drawing.append(R"(" x=")").append(tenths(start));
        drawing.append(R"(" width=")").append(tenths(width));
        drawing.append(R"(" height="40"><title>)").append(escaped(piece.words));
        drawing.append("</title></rect>");
        start += width;
    }
    return drawing + "</svg>\n";
}

std::string legendRow(
    std::string_view kind, std::string_view words, std::span<const std::string> cells)
{
    std::string row = R"(<tr><th scope="row"><svg class="sign" viewBox="0 0 10 10" )"
                      R"(aria-hidden="true"><rect class=")";
    row.append(kind).append(R"(" width="10" height="10"/></svg> )").append(escaped(words));
    row += "</th>";
    for (const auto& cell : cells)
        row.append("<td>").append(escaped(cell)).append("</td>");
    return row + "</tr>\n";
}

} // namespace HTML
