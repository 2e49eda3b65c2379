#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Text of programs and files as ASCII knows it. What belongs to any language is in Unicode.h.
namespace Text {

constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// A letter from A to Z in lower case; every other character as it is.
constexpr char lowerCase(char character)
{
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A'))
                                                : character;
}
std::string lowerCase(std::string_view text);
std::string upperCase(std::string_view text);

/// The number that the whole text is; none for an empty text, for a sign, for anything before or
/// behind the digits, and for a number that the type cannot hold.
template <std::unsigned_integral T = std::uint64_t>
std::optional<T> number(std::string_view text, int base = 10)
{
    T value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value)
                                                                    : std::nullopt;
}

/// The lowest `digits` hexadecimal digits of a value, in upper case.
std::string hex(std::uint64_t value, int digits);

/// A list for the user that names its first entries and counts the others: "a, b og 3 mere".
class ShortList {
public:
    /// `maxShown`: how many entries it names, at least 1.
    explicit ShortList(std::size_t maxShown)
        : maxShown_(maxShown)
    {
    }

    void add(std::string_view entry);
    std::size_t count() const { return count_; }
    /// Whether further entries are only counted.
    bool isFull() const { return count_ >= maxShown_; }
    std::string text() const;

private:
    std::size_t maxShown_;
    std::size_t count_ = 0;
    std::string shown_;
};

/// Takes the first line off the front, without its line feed, which the last one may lack.
std::string_view takeLine(std::string_view& text);

} // namespace Text
