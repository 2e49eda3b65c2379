#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// ISO 32000-1, Lexical Conventions.

namespace Content::Formats {

/// Cuts the text of a PDF file into words, byte by byte. Strings and names are passed over.
class PDFLexer {
public:
    enum class Event : std::uint8_t {
        none,
        word,    ///< a number or a keyword ended in front of this byte: see `word`
        comment, ///< a comment ended in front of this byte: `word` is what it begins with
        wrong,   ///< no document holds this byte here
    };

    Event take(std::uint8_t byte);
    std::string_view word() const { return { text_.data(), length_ }; }
    /// Whether the comment that is being read begins so, and has no more by now.
    bool isComment(std::string_view text) const
    {
        return mode_ == Mode::comment && !startsText_ && word() == text;
    }
    /// Starts anew between two words.
    void reset() { *this = PDFLexer(); }

private:
    enum class Mode : std::uint8_t { space, word, name, comment, text, escape, hexText };

    Event takeOutside(std::uint8_t byte);
    Event takeInText(std::uint8_t byte);
    Event takeInHexText(std::uint8_t byte);
    Event takeInComment(std::uint8_t byte);
    void begin(Mode mode);
    bool add(std::uint8_t byte);

    Mode mode_ = Mode::space;
    std::array<char, 24> text_ {};
    std::size_t length_ = 0;
    bool startsText_ = false; ///< the next byte is the first one of `text_`
    int textDepth_ = 0;       ///< of parentheses in a string
    int zeros_ = 0;           ///< that came last
};

} // namespace Content::Formats
