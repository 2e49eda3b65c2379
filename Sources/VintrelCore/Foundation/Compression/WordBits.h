#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

namespace Compression {

/// Reads bits, the highest one first, out of words of 16 bits with their low byte first, as XPRESS
/// Huffman and LZX both have them. So many words are taken ahead that 16 bits are always there:
/// XPRESS puts whole bytes among the words, behind those. Past the end everything is zero.
class WordBits {
public:
    explicit WordBits(ByteView bytes) { restart(bytes, 0); }

    /// Begins anew at byte `position`.
    void restart(ByteView bytes, std::int64_t position)
    {
        *this = WordBits(bytes, position);
        load();
        load();
    }

    /// The next 16 bits, which stay.
    std::uint32_t peek() const
    {
        return static_cast<std::uint32_t>(bits_ >> (available_ - 16)) & 0xFFFF;
    }
    /// Steps over at most 16 bits.
    void skip(int count)
    {
        available_ -= count;
        if (available_ < 16)
            load();
    }
    /// A number of at most 16 bits.
    std::uint32_t take(int count)
    {
        const auto value = peek() >> (16 - count);
        skip(count);
        return value;
    }
    /// A byte from behind the words that were taken.
    std::uint8_t takeByte() { return bytes_.u8(position_++); }
    std::uint16_t takeWord()
    {
        position_ += 2;
        return bytes_.u16le(position_ - 2);
    }

    /// Where the words go on behind the one that the next bit lies in, in bytes.
    std::int64_t nextWord() const
    {
        const std::int64_t wordsLeft = (available_ - 1) / 16;
        return position_ - 2 * wordsLeft;
    }
    /// Whether more was read than there is.
    bool isOver() const
    {
        return position_ > static_cast<std::int64_t>(bytes_.size()) + wordsAhead;
    }

private:
    static constexpr std::int64_t wordsAhead = 4; ///< in bytes

    WordBits(ByteView bytes, std::int64_t position)
        : bytes_(bytes)
        , position_(position)
    {
    }

    void load()
    {
        bits_ = bits_ << 16 | takeWord();
        available_ += 16;
    }

    ByteView bytes_;
    std::int64_t position_ = 0;
    std::uint64_t bits_ = 0; ///< the lowest `available_` of them
    int available_ = 0;
};

} // namespace Compression
