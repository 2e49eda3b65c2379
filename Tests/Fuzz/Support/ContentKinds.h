#pragma once

#include <array>
#include <string_view>

/// One extension for each checker of content; the first byte of an input is a place in this list.
inline constexpr std::array<std::string_view, 16> contentKinds { "jpg", "mp4", "png", "zip", "pdf",
    "avi", "wav", "webp", "mp3", "doc", "tif", "webm", "gif", "ogg", "sqlite", "cr2" };
