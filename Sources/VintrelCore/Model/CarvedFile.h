#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What is known of the joins between the pieces of a file.
enum class Joins : std::uint8_t {
    proved,    ///< the content proves every byte
    chained,   ///< lengths lead over them, which wrong bytes elsewhere would not disturb
    uncertain, ///< others would have done as well
};

/// Why a find is less than a whole file.
enum class Remnant : std::uint8_t {
    none,
    brokenOff, ///< the content goes on elsewhere, and nobody knows where
    unclosed,  ///< a recording without what is written when it stops
    thumbnail, ///< the small picture in the head of a lost photo
};

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
    bool isOpenEnded = false;    ///< whether nothing but the next find tells where it ends
    bool isCut = false;          ///< whether the source ends before the file does
    bool isInterrupted = false;  ///< whether another find begins inside
    bool isContradicted = false; ///< whether its content shows that some of it is another's
    bool isOverruled = false;    ///< whether a volume has the file, and has the rest elsewhere
    /// On the source, in the order of the file; empty for a file in one piece.
    std::vector<ByteRange> pieces = {};
    Joins joins = Joins::proved; ///< between the pieces
    Remnant remnant = Remnant::none;

    bool operator==(const CarvedFile&) const = default;
};

/// A place where a file of a known kind seems to begin, whose structure was not found to hold
/// together from there.
struct BrokenHead {
    std::uint64_t offset = 0;        ///< in bytes on the source
    const char* extension = nullptr; ///< of the kind, or of one of a family of kinds; a literal

    bool operator==(const BrokenHead&) const = default;
};
