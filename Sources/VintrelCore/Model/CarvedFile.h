#pragma once

#include "VintrelCore/Foundation/TimeConversion.h"

#include <cstdint>
#include <optional>
#include <string>

/// A file that was found by its content alone.
struct CarvedFile {
    std::uint64_t offset = 0; ///< of its first byte, in bytes on the source
    std::uint64_t size = 0;   ///< in bytes, never beyond the end of the source
    std::string ext;          ///< in lower case, without the dot
    bool exact = true; ///< whether the format itself tells the length; otherwise it is an estimate
    std::optional<Date> date = {}; ///< when it was taken; only JPEG and ISO media files say
    /// The same of TIFF files and raws, whose names here do not tell it.
    std::optional<Date> captured = {};
    /// Whether its body was followed to its end, so that no other file lies inside. A head whose
    /// body is lost states its length just as well.
    bool isProved = false;
    bool isOpenEnded = false;   ///< whether nothing but the next find tells where it ends
    bool isCut = false;         ///< whether the source ends before the file does
    bool isInterrupted = false; ///< whether another find begins inside

    bool operator==(const CarvedFile&) const = default;
};
