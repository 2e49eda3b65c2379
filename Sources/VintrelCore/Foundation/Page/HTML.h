#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

struct EmbeddedText;

/// Pages to look at. Each is one file that needs nothing from any network.
namespace HTML {

/// Text from anywhere as text of a page, also inside of attributes: none of it is markup, and what
/// would mislead its reader is spelled out.
std::string escaped(std::string_view text);

/// The address of a file by its path below the folder that the page lies in. No name can make
/// another address of it.
std::string relativeURL(std::string_view path);

/// "12,3 %", rounded down, so that only the whole is 100. A part that rounds to nothing is "under
/// 0,1 %".
std::string percent(std::uint64_t part, std::uint64_t whole);

/// The page's beginning with its heading. Its own style and script are the only ones that a browser
/// will obey. `script`: none for a page without one.
std::string opening(std::string_view title, const EmbeddedText* script);
std::string closing();

/// A piece of a strip. The pieces are drawn from the left, by their shares of all lengths together.
struct StripPiece {
    std::string_view kind; ///< its class in the style
    std::string_view words;
    std::uint64_t length = 0;
};

/// A horizontal strip as a drawing. `description`: what it shows, for those who do not see it.
std::string strip(std::span<const StripPiece> pieces, std::string_view description);

/// A row of a strip's legend: what a kind is called, and what there is to say of it in each further
/// column.
std::string legendRow(
    std::string_view kind, std::string_view words, std::span<const std::string> cells);

} // namespace HTML
