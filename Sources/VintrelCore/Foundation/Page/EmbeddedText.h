#pragma once

#include <string_view>

/// A text file that is part of the program.
struct EmbeddedText {
    std::string_view text;
    std::string_view hash; ///< as a Content-Security-Policy names it: "sha256-…="
};

extern const EmbeddedText pageStyle;
