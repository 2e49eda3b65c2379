#include "VintrelCore/Foundation/Wildcard.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

namespace {

constexpr char32_t separator = U'/';

} // namespace

Wildcard::Wildcard(std::string_view pattern)
    : isPath_(pattern.find('/') != std::string_view::npos)
{
    if (pattern.starts_with('/'))
        pattern.remove_prefix(1);
    using Kind = Token::Kind;
    while (!pattern.empty()) {
        const auto character = Unicode::takeFirst(pattern);
        if (character == U'*' && !tokens_.empty() && tokens_.back().kind == Kind::anyInName)
            tokens_.back().kind = Kind::anything;
        else if (character == U'*')
            tokens_.push_back({ Kind::anyInName });
        else if (character == U'?')
            tokens_.push_back({ Kind::anyCharacter });
        else
            tokens_.push_back({ Kind::character, Unicode::foldedCase(character) });
    }
    // A folder may be written with its slash.
    if (!tokens_.empty() && tokens_.back().character == separator)
        tokens_.pop_back();
}

/// Whether the star at `state` takes the character.
bool Wildcard::stays(std::size_t state, char32_t character) const
{
    const auto kind = tokens_[state].kind;
    return kind == Token::Kind::anything
        || (kind == Token::Kind::anyInName && character != separator);
}

/// Whether the token at `state` is done with the character.
bool Wildcard::advances(std::size_t state, char32_t character) const
{
    const auto& token = tokens_[state];
    return (token.kind == Token::Kind::character && token.character == character)
        || (token.kind == Token::Kind::anyCharacter && character != separator);
}

/// Lets every star that was reached also stand for nothing.
void Wildcard::skipEmpty(std::vector<bool>& states) const
{
    for (std::size_t state = 0; state < tokens_.size(); ++state)
        if (states[state]
            && (tokens_[state].kind == Token::Kind::anyInName
                || tokens_[state].kind == Token::Kind::anything))
            states[state + 1] = true;
}

bool Wildcard::matches(std::string_view path) const
{
    const auto beginning = [this] {
        std::vector<bool> states(tokens_.size() + 1);
        states[0] = true;
        skipEmpty(states);
        return states;
    };
    if (path.starts_with('/'))
        path.remove_prefix(1);
    auto states = beginning(); // how much of the pattern what was read so far may be
    while (!path.empty()) {
        const auto character = Unicode::foldedCase(Unicode::takeFirst(path));
        if (character == separator && states.back())
            return true;
        if (character == separator && !isPath_) {
            states = beginning();
            continue;
        }
        std::vector<bool> next(states.size());
        for (std::size_t state = 0; state < tokens_.size(); ++state) {
            if (!states[state])
                continue;
            if (stays(state, character))
                next[state] = true;
            if (advances(state, character))
                next[state + 1] = true;
        }
        skipEmpty(next);
        states = std::move(next);
    }
    return states.back();
}
