#include "VintrelCore/Foundation/Text.h"

#include <algorithm>

namespace Text {

std::string lowerCase(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(
        result, result.begin(), [](char character) { return lowerCase(character); });
    return result;
}

std::string upperCase(std::string_view text)
{
    std::string result(text);
    for (char& character : result)
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - ('a' - 'A'));
    return result;
}

std::string hex(std::uint64_t value, int digits)
{
    std::string text;
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        text += "0123456789ABCDEF"[value >> shift & 0xF];
    return text;
}

std::string_view takeLine(std::string_view& text)
{
    const auto line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

void ShortList::add(std::string_view entry)
{
    if (!isFull())
        shown_.append(count_ == 0 ? "" : ", ").append(entry);
    ++count_;
}

std::string ShortList::text() const
{
    return count_ > maxShown_ ? shown_ + " og " + std::to_string(count_ - maxShown_) + " mere"
                              : shown_;
}

} // namespace Text
