#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// ISO 32000-1, Objects: what a piece of a PDF file's text says.

namespace Content::Formats {

inline bool isPDFSpace(std::uint8_t byte) { return byte <= ' '; }

/// The text behind a key of the outermost dictionary; empty when it has no such key.
std::string_view pdfValue(std::string_view text, std::string_view key);

/// `text` without the space at its beginning; `more` counts as space, too.
std::string_view skipPDFSpace(std::string_view text, std::string_view more = "");

/// The number at the beginning of `text`, behind space, which is taken off; none when there is
/// none, or one that no file is long enough for.
std::optional<std::uint64_t> takePDFNumber(std::string_view& text);

} // namespace Content::Formats
