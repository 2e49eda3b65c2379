#pragma once

#include "VintrelCore/Content/Formats/LZWCheck.h"
#include "VintrelCore/Content/Formats/TIFFDirectory.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <optional>

namespace Content::Formats {

/// How little the rows of a picture differ from those above them.
class RowSteps {
public:
    void begin(std::uint32_t rowSize);
    void add(ByteView bytes);
    double last() const { return last_; }
    double usual() const { return rows_ == 0 ? 0 : sum_ / rows_; }

private:
    static constexpr std::uint32_t maxRowSize = 65'536;

    Bytes above_;
    std::size_t at_ = 0;
    bool isFirstRow_ = true;
    std::uint64_t step_ = 0; ///< of the row that is being read, over all its bytes
    double last_ = 0, sum_ = 0, rows_ = 0;
};

/// Follows the data of one strip after the other.
class TIFFStripCheck {
public:
    enum class Result : std::uint8_t {
        whole, ///< nothing contradicts the strip
        waits, ///< not all of it is there
        wrong, ///< a byte before `position` is not the strip's
    };

    /// To be told before each strip.
    void begin(const TIFFStrip& strip);
    Result advance(FileBytes& file);
    std::uint64_t position() const { return position_; }
    /// Whether what came out of the whole strip was as long as the picture demands.
    bool isDecoded() const { return isDecoded_; }
    const RowSteps& steps() const { return steps_; }

private:
    bool take(ByteView bytes);
    bool takeDeflate(ByteView bytes);
    bool takeLZW(ByteView bytes);
    bool takePackBits(ByteView bytes);
    bool isEndSound();

    TIFFStrip strip_ {};
    std::uint64_t position_ = 0;
    std::uint64_t produced_ = 0;
    bool isOver_ = false; ///< the codes have ended; what follows is padding
    bool isDecoded_ = false;
    std::optional<Compression::Inflater> inflater_;
    std::optional<LZWCheck> lzw_;
    std::uint32_t literals_ = 0; ///< of PackBits, that are to be passed over
    bool isRepeat_ = false;      ///< whether the next byte is repeated
    RowSteps steps_;
};

} // namespace Content::Formats
