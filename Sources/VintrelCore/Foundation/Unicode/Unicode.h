#pragma once

#include <string>
#include <string_view>

/// Text from disks. Names are UTF-8 everywhere in the program; what is not valid where it comes
/// from becomes U+FFFD.
namespace Unicode {

inline constexpr char32_t replacement = 0xFFFD;

/// Whether every byte is ASCII, as in nearly all names: such text is its own normalisation form.
bool isASCII(std::string_view text);

/// Takes the first code point off the front of `text`. A broken sequence gives U+FFFD and consumes
/// one byte; an empty text must not be given.
char32_t takeFirst(std::string_view& text);

/// Appends a code point as UTF-8.
void append(std::string& text, char32_t codePoint);

/// UTF-8 of UTF-16 units; an unpaired surrogate becomes U+FFFD, zero units are kept.
std::string fromUTF16(std::u16string_view units);

/// Removes the last code point. Broken bytes at the end go one at a time.
void removeLast(std::string& text);

/// The property White_Space.
bool isWhiteSpace(char32_t codePoint);

/// `text` without White_Space at either end.
std::string_view trimmed(std::string_view text);

/// `text` with everything that could drive a terminal or mislead its reader spelled out: control
/// characters as \n, \t, \r or \x1B, line separators and marks that turn the writing direction as
/// \u202E.
std::string escaped(std::string_view text);

/// How the case-insensitive order of names sees a code point. Without a Unicode library only ASCII
/// letters fold.
char32_t foldedCase(char32_t codePoint);

/// Normalisation form C. Without a Unicode library, and for text that is no valid UTF-8, the text
/// itself.
std::string composed(std::string_view text);

} // namespace Unicode
