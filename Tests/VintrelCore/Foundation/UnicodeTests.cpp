#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

/// A build without a Unicode library leaves names as they are; that both functions do so cannot be
/// an accident.
bool hasLibrary()
{
    return Unicode::foldedCase(U'Æ') != U'Æ' || Unicode::composed("e\u0301") != "e\u0301";
}

std::u32string codePoints(std::string_view text)
{
    std::u32string points;
    while (!text.empty())
        points += Unicode::takeFirst(text);
    return points;
}

} // namespace

TEST(Unicode, EveryCodePointComesBackAndABrokenByteCostsNothingButItself)
{
    for (const char32_t point :
        { 0x00u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xD7FFu, 0xE000u, 0xFFFFu, 0x10000u, 0x10FFFFu }) {
        std::string text;
        Unicode::append(text, point);
        EXPECT_EQ(codePoints(text + "x"), (std::u32string { point, U'x' }))
            << static_cast<std::uint32_t>(point);
    }
    constexpr char32_t bad = Unicode::replacement;
    const std::pair<const char*, std::u32string> cases[] = {
        { "\x80z\xFF", { bad, U'z', bad } }, // a continuation by itself, and no byte of UTF-8
        { "\xC3\xC3\xA6", { bad, U'æ' } },   // cut short by another character
        { "z\xE2\x82", { U'z', bad, bad } }, // and by the end
        { "\xC0\xAF", { bad, bad } },        // "/" in two bytes
        { "\xF0\x80\x80\xAF", { bad, bad, bad, bad } }, // in four
        { "\xED\xA0\x80", { bad, bad, bad } },          // a surrogate
        { "\xF4\x90\x80\x80", { bad, bad, bad, bad } }, // above 10FFFF
    };
    for (const auto& [text, points] : cases)
        EXPECT_EQ(codePoints(text), points) << text;
}

TEST(Unicode, CutsAtEitherEnd)
{
    // Broken bytes at the end go one at a time, and take no sound character with them.
    const std::pair<const char*, const char*> cases[]
        = { { "a€", "a" }, { "a\U0001F600", "a" }, { "", "" }, { "ø\x80", "ø" },
              { "a\xE2\x82", "a\xE2" }, { "\x80\x80\x80\x80\x80", "\x80\x80\x80\x80" } };
    for (const auto& [text, expected] : cases) {
        std::string rest = text;
        Unicode::removeLast(rest);
        EXPECT_EQ(rest, expected) << text;
    }
    const std::pair<std::string_view, std::string_view> blanks[] = { { "", "" }, { " \t\r\n", "" },
        { "\u00A0\u2003 a b \u3000\u0085", "a b" }, { "\u2028\u2029\u205F\u1680\u202Fa", "a" },
        { "\u200Ba\u200B", "\u200Ba\u200B" }, // of no width, and no white space
        { " a\xC3 ", "a\xC3" }, { "\xA0 ", "\xA0" } };
    for (const auto& [text, expected] : blanks)
        EXPECT_EQ(Unicode::trimmed(text), expected) << text;
}

TEST(Unicode, NothingPrintedDrivesTheTerminal)
{
    const std::pair<std::string_view, std::string_view> cases[] = {
        { "Æblegrød \U0001F34E (1).txt", "Æblegrød \U0001F34E (1).txt" },
        { "a\nb\tc\rd", R"(a\nb\tc\rd)" }, { "\x1B[2J\x07\x7F", R"(\x1B[2J\x07\x7F)" },
        { "\u009B2J", R"(\x9B2J)" }, // and the 8-bit form of ESC [
        { "\u061C\u200E\u200F\u202A\u202E\u2066\u2069\u2028\u2029",
            R"(\u061C\u200E\u200F\u202A\u202E\u2066\u2069\u2028\u2029)" },
        { "a\x9B[2J", "a\uFFFD[2J" }, // a broken byte must not become one in an 8-bit terminal
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(Unicode::escaped(text), expected);
}

TEST(Unicode, FoldsCaseAndComposes)
{
    for (const auto& [upper, lower] :
        { std::pair { U'A', U'a' }, { U'Z', U'z' }, { U'@', U'@' }, { U'[', U'[' } })
        EXPECT_EQ(Unicode::foldedCase(upper), lower);
    if (!hasLibrary())
        GTEST_SKIP() << "built without a Unicode library";
    for (const auto& [upper, lower] : { std::pair { U'Æ', U'æ' }, { U'å', U'å' }, { U'Σ', U'σ' },
             { U'\U00010400', U'\U00010428' }, { U'×', U'×' } })
        EXPECT_EQ(Unicode::foldedCase(upper), lower) << static_cast<std::uint32_t>(upper);
    const std::pair<std::string_view, std::string_view> cases[] = {
        { "A\u030Arhus", "Århus" },
        { "e\u0301\u0323", "\u1EB9\u0301" },        // marks are put in order first
        { "\uFB01\U0001F600", "\uFB01\U0001F600" }, // a ligature stays
        { "\xC3 e\u0301", "\xC3 e\u0301" },         // broken text stays as it is
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(Unicode::composed(text), expected) << text;
}
