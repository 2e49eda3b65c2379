#pragma once

#include <array>
#include <cstdint>

namespace Content::Formats {

/// Follows the codes of LZW as GIF and TIFF write them. Holds how long each code's string is, not
/// the strings: that is enough to see codes that do not exist yet, and how much comes out.
class LZWCheck {
public:
    enum class Kind : std::uint8_t {
        gif,  ///< the low bits first; codes become wider when they have to
        tiff, ///< the high bits first; codes become wider one code early
    };
    enum class State : std::uint8_t { open, ended, wrong };

    /// `bits` of one value that is packed; 1...8.
    LZWCheck(Kind kind, int bits)
        : kind_(kind)
        , clear_(1u << bits)
        , bits_(bits)
    {
        restart();
    }

    State add(std::uint8_t byte)
    {
        if (kind_ == Kind::gif)
            buffer_ |= std::uint32_t { byte } << held_;
        else
            buffer_ = buffer_ << 8 | byte;
        held_ += 8;
        while (held_ >= width_ && state_ == State::open)
            state_ = take(nextCode());
        return state_;
    }
    /// Values that came out by now.
    std::uint64_t produced() const { return produced_; }

private:
    static constexpr std::uint32_t maxCodes = 4096;
    static constexpr int maxWidth = 12;

    std::uint32_t nextCode()
    {
        const auto mask = (1u << width_) - 1;
        held_ -= width_;
        if (kind_ == Kind::tiff)
            return buffer_ >> held_ & mask;
        const auto code = buffer_ & mask;
        buffer_ >>= width_;
        return code;
    }

    void restart()
    {
        next_ = clear_ + 2;
        width_ = bits_ + 1;
        last_ = 0;
    }

    State take(std::uint32_t code)
    {
        if (code == clear_) {
            restart();
            return State::open;
        }
        if (code == clear_ + 1)
            return State::ended;
        const bool isNew = last_ != 0 && code == next_ && next_ < maxCodes;
        if (code >= next_ && !isNew)
            return State::wrong;
        std::uint32_t length = 1;
        if (isNew)
            length = last_ + 1;
        else if (code > clear_)
            length = lengths_[code];
        if (last_ != 0 && next_ < maxCodes)
            lengths_[next_++] = static_cast<std::uint16_t>(last_ + 1);
        const std::uint32_t early = kind_ == Kind::tiff ? 1 : 0;
        if (next_ + early >= 1u << width_ && width_ < maxWidth)
            ++width_;
        last_ = length;
        produced_ += length;
        return State::open;
    }

    Kind kind_;
    std::uint32_t clear_;
    int bits_;
    int width_ = 0; ///< of the next code, in bits
    std::uint32_t next_ = 0;
    std::uint32_t last_ = 0; ///< how long the last code's string is; 0 behind a clear code
    std::uint32_t buffer_ = 0;
    int held_ = 0; ///< bits in the buffer
    std::uint64_t produced_ = 0;
    State state_ = State::open;
    std::array<std::uint16_t, maxCodes> lengths_ {};
};

} // namespace Content::Formats
