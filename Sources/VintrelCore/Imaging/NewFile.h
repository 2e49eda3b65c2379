#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <string>
#include <string_view>

/// Puts a new file with this content at `path`, by way of `temporaryPath` beside it. At every
/// moment, a loss of power included, there is a whole file at `path`, this one or the one before.
/// What has one of the names may be a link to anything; nothing is written through it.
[[nodiscard]] SystemError replaceFile(
    const std::string& path, const std::string& temporaryPath, std::string_view text);
