#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The options of a command line. An option counts wherever it stands, and its value is the
/// argument behind it. What no command knows is left alone.
class Options {
public:
    /// `arguments` must outlive the options.
    explicit Options(std::span<const std::string> arguments)
        : arguments_(arguments)
    {
    }

    bool has(std::string_view option) const { return std::ranges::count(arguments_, option) != 0; }
    /// The values of an option that may be repeated, as they stand.
    std::vector<std::string> values(std::string_view option) const;
    /// The same cut at their commas, in lower case.
    std::vector<std::string> words(std::string_view option) const;
    /// Whether the option stands at the end, before an empty value or before another option.
    bool lacksValue(std::string_view option) const;

private:
    std::span<const std::string> arguments_;
};
