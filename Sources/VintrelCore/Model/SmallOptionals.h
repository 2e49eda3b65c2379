#pragma once

#include "VintrelCore/Foundation/TimeConversion.h"

#include <chrono>
#include <compare>
#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// What std::optional says, in the room of one word: nodes have dates and notes by the million, and
// most of the notes are none. What std::optional has is called as it is there.
// NOLINTBEGIN(readability-identifier-naming)

/// A date, or none. None comes before all dates.
class OptionalDate {
public:
    constexpr OptionalDate() = default;
    constexpr OptionalDate(std::nullopt_t) { }
    constexpr OptionalDate(Date date)
        : date_(date)
    {
    }
    constexpr OptionalDate(std::optional<Date> date)
        : date_(date.value_or(none))
    {
    }
    constexpr operator std::optional<Date>() const
    {
        return has_value() ? std::optional(date_) : std::nullopt;
    }

    constexpr bool has_value() const { return date_ != none; }
    constexpr explicit operator bool() const { return has_value(); }
    constexpr Date operator*() const { return date_; }

    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 takes the 0 of comparisons for a pointer
    constexpr auto operator<=>(const OptionalDate&) const = default;
    constexpr bool operator==(const OptionalDate&) const = default;
    constexpr bool operator==(const std::optional<Date>& other) const
    {
        return *this == OptionalDate(other);
    }
    constexpr bool operator==(std::nullopt_t) const { return !has_value(); }
    template <class Duration> constexpr bool operator==(std::chrono::sys_time<Duration> other) const
    {
        return has_value() && date_ == other;
    }

private:
    static constexpr Date none = Date::min(); // no time stamp reaches back so far

    Date date_ = none;
};

/// A text, or none.
class OptionalText {
public:
    OptionalText() = default;
    OptionalText(std::string text)
        : text_(std::make_unique<std::string>(std::move(text)))
    {
    }
    OptionalText(std::string_view text)
        : OptionalText(std::string(text))
    {
    }
    OptionalText(const char* text)
        : OptionalText(std::string(text))
    {
    }
    OptionalText(std::optional<std::string> text)
    {
        if (text)
            text_ = std::make_unique<std::string>(*std::move(text));
    }
    OptionalText(const OptionalText& other)
    {
        if (other)
            text_ = std::make_unique<std::string>(*other);
    }
    OptionalText(OptionalText&&) noexcept = default;
    OptionalText& operator=(const OptionalText& other) { return *this = OptionalText(other); }
    OptionalText& operator=(OptionalText&&) noexcept = default;
    ~OptionalText() = default;

    bool has_value() const { return text_ != nullptr; }
    explicit operator bool() const { return has_value(); }
    const std::string& operator*() const { return *text_; }
    const std::string* operator->() const { return text_.get(); }
    std::string* operator->() { return text_.get(); }
    std::string value_or(std::string other) const { return text_ ? *text_ : std::move(other); }
    void reset() { text_.reset(); }

    bool operator==(const OptionalText& other) const
    {
        return text_ && other.text_ ? *text_ == *other.text_ : text_ == other.text_;
    }
    template <std::convertible_to<std::string_view> T> bool operator==(const T& other) const
    {
        return text_ && *text_ == std::string_view(other);
    }

private:
    std::unique_ptr<std::string> text_;
};

// NOLINTEND(readability-identifier-naming)
