#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace Unicode {

namespace {

constexpr bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// Characters that change how the text around them is shown: C0 and C1 controls, line and paragraph
/// separators, and the marks, embeddings, overrides and isolates of bidirectional text.
constexpr bool steersDisplay(char32_t codePoint)
{
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) || codePoint == 0x061C
        || codePoint == 0x200E || codePoint == 0x200F
        || (codePoint >= 0x2028 && codePoint <= 0x202E)
        || (codePoint >= 0x2066 && codePoint <= 0x2069);
}

void appendEscape(std::string& text, char32_t codePoint)
{
    switch (codePoint) {
    case '\n':
        text += "\\n";
        break;
    case '\r':
        text += "\\r";
        break;
    case '\t':
        text += "\\t";
        break;
    default:
        text += codePoint <= 0xFF ? "\\x" : "\\u";
        text += Text::hex(codePoint, codePoint <= 0xFF ? 2 : 4);
    }
}

/// Where the last code point of a text that is not empty begins. What is broken counts byte by
/// byte, as takeFirst has it.
std::size_t lastStart(std::string_view text)
{
    std::size_t start = text.size() - 1;
    while (start > 0 && text.size() - start < 4 && isContinuation(text[start]))
        --start;
    auto last = text.substr(start);
    takeFirst(last);
    return last.empty() ? start : text.size() - 1;
}

} // namespace

bool isASCII(std::string_view text)
{
    return std::ranges::all_of(
        text, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

char32_t takeFirst(std::string_view& text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    std::size_t length = 1;
    char32_t value = lead;
    char32_t least = 0;
    if (lead >= 0x80) {
        if (lead >= 0xC0 && lead < 0xE0) {
            length = 2;
            value = lead & 0x1F;
            least = 0x80;
        } else if (lead >= 0xE0 && lead < 0xF0) {
            length = 3;
            value = lead & 0x0F;
            least = 0x800;
        } else if (lead >= 0xF0 && lead < 0xF8) {
            length = 4;
            value = lead & 0x07;
            least = 0x10000;
        } else {
            text.remove_prefix(1);
            return replacement;
        }
    }
    const auto isSound = [&] {
        if (text.size() < length)
            return false;
        for (std::size_t i = 1; i < length; ++i) {
            if (!isContinuation(text[i]))
                return false;
            value = value << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        return value >= least && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
    };
    if (!isSound()) {
        text.remove_prefix(1);
        return replacement;
    }
    text.remove_prefix(length);
    return value;
}

void append(std::string& text, char32_t codePoint)
{
    const auto tail
        = [&](int shift) { return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F)); };
    if (codePoint < 0x80) {
        text += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        text += static_cast<char>(0xC0 | codePoint >> 6);
        text += tail(0);
    } else if (codePoint < 0x10000) {
        text += static_cast<char>(0xE0 | codePoint >> 12);
        text += tail(6);
        text += tail(0);
    } else {
        text += static_cast<char>(0xF0 | codePoint >> 18);
        text += tail(12);
        text += tail(6);
        text += tail(0);
    }
}

std::string fromUTF16(std::u16string_view units)
{
    const auto isLead = [](char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; };
    const auto isTrail = [](char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; };
    std::string text;
    text.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        const auto unit = static_cast<char32_t>(units[i]);
        const auto next = i + 1 < units.size() ? static_cast<char32_t>(units[i + 1]) : 0;
        if (isLead(unit) && isTrail(next)) {
            append(text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++i;
        } else {
            append(text, isLead(unit) || isTrail(unit) ? replacement : unit);
        }
    }
    return text;
}

void removeLast(std::string& text)
{
    if (!text.empty())
        text.resize(lastStart(text));
}

bool isWhiteSpace(char32_t codePoint)
{
    return (codePoint >= 0x09 && codePoint <= 0x0D) || codePoint == 0x20 || codePoint == 0x85
        || codePoint == 0xA0 || codePoint == 0x1680 || (codePoint >= 0x2000 && codePoint <= 0x200A)
        || codePoint == 0x2028 || codePoint == 0x2029 || codePoint == 0x202F || codePoint == 0x205F
        || codePoint == 0x3000;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty()) {
        auto rest = text;
        if (!isWhiteSpace(takeFirst(rest)))
            break;
        text = rest;
    }
    while (!text.empty()) {
        const auto start = lastStart(text);
        auto last = text.substr(start);
        if (!isWhiteSpace(takeFirst(last)))
            break;
        text = text.substr(0, start);
    }
    return text;
}

std::string escaped(std::string_view text)
{
    const auto isPlain = [](char byte) { return byte >= 0x20 && byte < 0x7F; };
    if (std::ranges::all_of(text, isPlain)) // as nearly always
        return std::string(text);
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto before = text;
        const char32_t codePoint = takeFirst(text);
        if (steersDisplay(codePoint))
            appendEscape(result, codePoint);
        else if (codePoint == replacement)
            append(result, replacement); // broken bytes could combine with what follows them
        else
            result += before.substr(0, before.size() - text.size());
    }
    return result;
}

} // namespace Unicode
