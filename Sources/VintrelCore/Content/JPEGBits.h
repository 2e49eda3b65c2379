#pragma once

#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Content/JPEGFrame.h"

#include <algorithm>
#include <cstdint>
#include <optional>

/// The bits of a scan of a JPEG picture (ITU-T T.81, F.2.2).
namespace Content::JPEG {

/// Reads bytes of a file one after another. Lives no longer than one call of a checker.
class ByteReader {
public:
    explicit ByteReader(FileBytes& file)
        : file_(file)
    {
    }

    /// None at and past the end.
    std::optional<std::uint8_t> at(std::uint64_t position)
    {
        if (position - start_ >= near_.size() && !moveTo(position))
            return std::nullopt;
        end_ = std::max(end_, position + 1);
        return near_.data()[position - start_];
    }
    /// As many of `count` bytes as there are. A segment has less than 64 KiB.
    Bytes copyOf(std::uint64_t position, std::size_t count)
    {
        Bytes bytes;
        bytes.reserve(count);
        while (bytes.size() < count && moveTo(position + bytes.size())) {
            const auto part = near_.span().first(std::min(near_.size(), count - bytes.size()));
            bytes.insert(bytes.end(), part.begin(), part.end());
        }
        end_ = std::max(end_, position + bytes.size());
        return bytes;
    }
    /// Of all bytes that were looked at.
    std::uint64_t end() const { return end_; }

private:
    bool moveTo(std::uint64_t position)
    {
        constexpr std::size_t atOnce = 65'536;
        near_ = position < file_.size() ? file_.stretch(position, atOnce) : ByteView();
        start_ = position;
        return !near_.empty();
    }

    FileBytes& file_;
    ByteView near_;
    std::uint64_t start_ = 0;
    std::uint64_t end_ = 0;
};

enum class BitState : std::uint8_t {
    good,
    runOut, ///< the bytes that are there so far
    wrong,  ///< no code begins like this, or a marker ends the scan too early
};

/// Takes bits, the highest of a byte first, up to the next marker. Copied to come back to a place.
class BitReader {
public:
    struct Result {
        BitState state = BitState::good;
        int value = 0;
    };

    /// Forgets the bits and goes on at a byte.
    void moveTo(std::uint64_t position) { *this = BitReader(position); }
    BitReader() = default;

    /// Of the next byte that was not taken in.
    std::uint64_t position() const { return position_; }
    int count() const { return count_; }
    bool isEmpty() const { return count_ == 0; }
    bool isAtMarker() const { return isAtMarker_; }
    void drop()
    {
        bits_ = 0;
        count_ = 0;
    }
    /// Whether all bits that are left are ones, as in front of a marker.
    bool areAllOnes() const { return count_ == 0 || (~bits_ >> (64 - count_)) == 0; }
    /// Whether there are no bytes to take in, and more may come.
    bool hasRunOut(ByteReader& bytes) const
    {
        const auto next = bytes.at(position_);
        return !next || (*next == escape && !bytes.at(position_ + 1));
    }

    void fill(ByteReader& bytes)
    {
        while (count_ <= 56 && !isAtMarker_) {
            const auto next = bytes.at(position_);
            if (!next)
                return;
            if (*next == escape) {
                const auto behind = bytes.at(position_ + 1);
                if (!behind)
                    return;
                isAtMarker_ = *behind != 0;
                if (isAtMarker_)
                    return;
                ++position_;
            }
            ++position_;
            bits_ |= std::uint64_t { *next } << (56 - count_);
            count_ += 8;
        }
    }

    /// The next code's symbol.
    Result symbol(ByteReader& bytes, const HuffmanTable& table)
    {
        if (count_ < 16)
            fill(bytes);
        const auto code = table.find(static_cast<std::uint16_t>(bits_ >> 48));
        if (code.length == 0)
            return { count_ >= 16 ? BitState::wrong : tooFew(), 0 };
        if (code.length > count_)
            return { tooFew(), 0 };
        skip(code.length);
        return { BitState::good, code.symbol };
    }
    /// `count` bits, at most 16, as a number.
    Result take(ByteReader& bytes, int count)
    {
        if (count_ < count)
            fill(bytes);
        if (count_ < count)
            return { tooFew(), 0 };
        if (count == 0)
            return {};
        const auto value = static_cast<int>(bits_ >> (64 - count));
        skip(count);
        return { BitState::good, value };
    }
    /// The same with a sign, as F.2.2.1 extends it.
    Result number(ByteReader& bytes, int count)
    {
        auto result = take(bytes, count);
        if (count > 0 && result.value < (1 << (count - 1)))
            result.value += 1 - (1 << count);
        return result;
    }

private:
    explicit BitReader(std::uint64_t position)
        : position_(position)
    {
    }
    BitState tooFew() const { return isAtMarker_ ? BitState::wrong : BitState::runOut; }
    void skip(int count)
    {
        bits_ <<= count;
        count_ -= count;
    }

    std::uint64_t bits_ = 0; ///< the next one is the highest
    std::uint64_t position_ = 0;
    int count_ = 0;
    bool isAtMarker_ = false;
};

} // namespace Content::JPEG
