#include "VintrelCore/Content/Formats/PDFLexer.h"

#include <cctype>
#include <string_view>

namespace Content::Formats {

namespace {

constexpr int maxZeros = 16; // more of them in a row are an empty sector

bool isSpace(std::uint8_t byte)
{
    return byte == ' ' || byte == '\n' || byte == '\r' || byte == '\t' || byte == '\f';
}

bool isDelimiter(std::uint8_t byte)
{
    return std::string_view("()<>[]{}/%").find(static_cast<char>(byte)) != std::string_view::npos;
}

} // namespace

PDFLexer::Event PDFLexer::take(std::uint8_t byte)
{
    zeros_ = byte == 0 ? zeros_ + 1 : 0;
    if (zeros_ > maxZeros)
        return Event::wrong;
    switch (mode_) {
    case Mode::text:
    case Mode::escape:
        return takeInText(byte);
    case Mode::hexText:
        return takeInHexText(byte);
    case Mode::comment:
        return takeInComment(byte);
    case Mode::name:
    case Mode::word:
    case Mode::space:
        break;
    }
    return takeOutside(byte);
}

PDFLexer::Event PDFLexer::takeInHexText(std::uint8_t byte)
{
    if (byte == '>' || byte == '<') // the second "<" opens a dictionary
        mode_ = Mode::space;
    else if (!isSpace(byte) && std::isxdigit(byte) == 0)
        return Event::wrong;
    return Event::none;
}

PDFLexer::Event PDFLexer::takeInComment(std::uint8_t byte)
{
    if (byte != '\n' && byte != '\r') {
        add(byte);
        return Event::none;
    }
    mode_ = Mode::space;
    return Event::comment;
}

void PDFLexer::begin(Mode mode)
{
    mode_ = mode;
    startsText_ = true;
}

PDFLexer::Event PDFLexer::takeInText(std::uint8_t byte)
{
    if (mode_ == Mode::escape)
        mode_ = Mode::text;
    else if (byte == '\\')
        mode_ = Mode::escape;
    else if (byte == '(')
        ++textDepth_;
    else if (byte == ')' && --textDepth_ == 0)
        mode_ = Mode::space;
    return Event::none;
}

bool PDFLexer::add(std::uint8_t byte)
{
    if (startsText_)
        length_ = 0;
    startsText_ = false;
    if (length_ < text_.size())
        text_[length_++] = static_cast<char>(byte);
    return length_ < text_.size();
}

PDFLexer::Event PDFLexer::takeOutside(std::uint8_t byte)
{
    const bool endsWord = isSpace(byte) || isDelimiter(byte);
    if (mode_ == Mode::word && !endsWord) {
        // More lenient: names may hold any byte, but no keyword or number is longer.
        return byte < '!' || byte > '~' || !add(byte) ? Event::wrong : Event::none;
    }
    if (mode_ == Mode::name && !endsWord)
        return byte < ' ' ? Event::wrong : Event::none;
    const auto ended = mode_ == Mode::word ? Event::word : Event::none;
    mode_ = Mode::space;
    if (byte == '(') {
        mode_ = Mode::text;
        textDepth_ = 1;
    } else if (byte == '<') {
        mode_ = Mode::hexText;
    } else if (byte == '/') {
        mode_ = Mode::name;
    } else if (byte == '%') {
        begin(Mode::comment);
    } else if (!endsWord) {
        begin(Mode::word);
        return byte < '!' || byte > '~' || !add(byte) ? Event::wrong : Event::none;
    }
    return ended;
}

} // namespace Content::Formats
