#pragma once

#include <string_view>
#include <vector>

/// A pattern for paths, as shells have them: `?` stands for one character, `*` for any of them up
/// to the next slash, `**` for slashes too. Case does not count. A pattern without a slash is
/// matched against every name on the path, one with slashes against the path from its beginning;
/// either way a folder that matches takes all that lies below it. Pure: any thread may use one.
class Wildcard {
public:
    explicit Wildcard(std::string_view pattern);

    /// Whether the path, or that of a folder above, is one of the pattern's. Names are separated by
    /// slashes, of which one may come first. The time is bounded by both lengths multiplied.
    bool matches(std::string_view path) const;

private:
    struct Token {
        enum class Kind { character, anyCharacter, anyInName, anything };
        Kind kind;
        char32_t character = 0; ///< folded
    };

    bool stays(std::size_t state, char32_t character) const;
    bool advances(std::size_t state, char32_t character) const;
    void skipEmpty(std::vector<bool>& states) const;

    std::vector<Token> tokens_;
    bool isPath_;
};
