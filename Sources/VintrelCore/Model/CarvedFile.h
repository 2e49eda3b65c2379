#pragma once

#include "VintrelCore/Foundation/TimeConversion.h"

#include <cstdint>
#include <optional>
#include <string>

/// A file that was found by its content alone.
struct CarvedFile {
    std::uint64_t offset = 0; ///< of its first byte, in bytes on the source
    std::uint64_t size
        = 0;           ///< in bytes; what the format says, which may be more than the source holds
    std::string ext;   ///< in lower case, without the dot
    bool exact = true; ///< whether the format itself tells the length; otherwise it is an estimate
    std::optional<Date> date = {}; ///< when it was taken; only JPEG and ISO media files say

    bool operator==(const CarvedFile&) const = default;
};
