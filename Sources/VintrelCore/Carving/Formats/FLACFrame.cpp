#include "VintrelCore/Carving/Formats/FLACFrame.h"

#include <algorithm>
#include <array>
#include <bit>

namespace Formats {

namespace {

template <class Checksum> constexpr auto checksumTable(Checksum polynomial)
{
    constexpr unsigned top = sizeof(Checksum) * 8 - 1;
    std::array<Checksum, 256> table {};
    for (unsigned byte = 0; byte < 256; ++byte) {
        auto value = static_cast<Checksum>(byte << (top - 7));
        for (int bit = 0; bit < 8; ++bit)
            value = static_cast<Checksum>((value << 1) ^ ((value >> top & 1) * polynomial));
        table[byte] = value;
    }
    return table;
}

constexpr auto headerChecksums = checksumTable<std::uint8_t>(0x07);
constexpr auto frameChecksums = checksumTable<std::uint16_t>(0x8005);

std::uint8_t headerChecksum(std::span<const std::uint8_t> bytes)
{
    std::uint8_t value = 0;
    for (const auto byte : bytes)
        value = headerChecksums[value ^ byte];
    return value;
}

/// Bits from the highest of the first byte on. Beyond the end it only remembers that.
class BitReader {
public:
    explicit BitReader(ByteView bytes, std::size_t from)
        : bytes_(bytes)
        , position_(from * 8)
    {
    }

    bool isAtEnd() const { return position_ > bytes_.size() * 8; }
    std::size_t position() const { return position_; }
    void skip(std::uint64_t count)
    {
        position_ += static_cast<std::size_t>(std::min<std::uint64_t>(count, beyond()));
    }
    std::uint32_t bits(unsigned count)
    {
        std::uint32_t value = 0;
        for (; count > 0; --count)
            value = value << 1 | bit();
        return value;
    }
    /// Passes over zeros and the one behind them; returns how many zeros.
    std::uint32_t unary()
    {
        std::uint32_t zeros = 0;
        while (!isAtEnd() && bit() == 0)
            ++zeros;
        return zeros;
    }

private:
    std::uint64_t beyond() const
    {
        const std::uint64_t end = bytes_.size() * 8 + 1;
        return end - std::min<std::uint64_t>(position_, end);
    }
    std::uint32_t bit()
    {
        const auto byte = bytes_.u8(static_cast<std::int64_t>(position_ / 8));
        const std::uint32_t value = byte >> (7 - position_ % 8) & 1;
        skip(1);
        return value;
    }

    ByteView bytes_;
    std::size_t position_;
};

/// Passes over the residual of a subframe (Rice codes in partitions). False when it is malformed.
bool skipResidual(BitReader& reader, std::uint32_t blockSize, std::uint32_t order)
{
    const auto method = reader.bits(2);
    if (method > 1)
        return false;
    const unsigned parameterBits = method == 0 ? 4 : 5;
    const std::uint32_t escape = (1U << parameterBits) - 1;
    const auto partitionOrder = reader.bits(4);
    const std::uint32_t partition = blockSize >> partitionOrder;
    if (partition << partitionOrder != blockSize || partition < order)
        return false;
    for (std::uint32_t i = 0; i < 1U << partitionOrder && !reader.isAtEnd(); ++i) {
        const std::uint32_t count = i == 0 ? partition - order : partition;
        const auto parameter = reader.bits(parameterBits);
        if (parameter == escape) {
            reader.skip(std::uint64_t { reader.bits(5) } * count);
            continue;
        }
        for (std::uint32_t sample = 0; sample < count && !reader.isAtEnd(); ++sample) {
            reader.unary();
            reader.skip(parameter);
        }
    }
    return !reader.isAtEnd();
}

/// Passes over the predictor of a subframe and its residual. False when they are malformed.
bool skipPredicted(
    BitReader& reader, std::uint32_t blockSize, unsigned bits, std::uint32_t order, bool isLinear)
{
    constexpr std::uint32_t shiftBits = 5;
    reader.skip(std::uint64_t { order } * bits);
    if (isLinear) {
        const std::uint32_t precision = reader.bits(4) + 1;
        if (precision > 15)
            return false;
        reader.skip(shiftBits + std::uint64_t { order } * precision);
    }
    return skipResidual(reader, blockSize, order);
}

/// Passes over one channel. False when it is malformed.
bool skipSubframe(BitReader& reader, std::uint32_t blockSize, unsigned bits)
{
    enum Type : std::uint32_t {
        constant = 0,
        verbatim = 1,
        fixed = 8,
        lastFixed = 12,
        linear = 32
    };
    if (reader.bits(1) != 0)
        return false;
    const auto type = reader.bits(6);
    if (reader.bits(1) != 0) { // low bits that are always zero are left out
        const auto wasted = reader.unary() + 1;
        if (wasted >= bits)
            return false;
        bits -= wasted;
    }
    if (type == constant || type == verbatim) {
        reader.skip(type == constant ? bits : std::uint64_t { blockSize } * bits);
        return !reader.isAtEnd();
    }
    if (type >= fixed && type <= lastFixed)
        return skipPredicted(reader, blockSize, bits, type - fixed, false);
    return type >= linear && skipPredicted(reader, blockSize, bits, type - linear + 1, true);
}

/// The block size by its code; 0 for one that is reserved. Codes 6 and 7 have it in bytes behind.
std::uint32_t blockSizeOf(unsigned code)
{
    if (code == 1)
        return 192;
    if (code >= 2 && code <= 5)
        return 576U << (code - 2);
    return code >= 8 ? 256U << (code - 8) : 0;
}

/// The number in the header, coded as UTF-8 codes characters, with up to seven bytes; its width
/// comes first. None when it is malformed.
struct CodedNumber {
    std::size_t width;
    std::uint64_t value;
};
std::optional<CodedNumber> codedNumber(ByteView bytes, std::int64_t at)
{
    const auto first = bytes.u8(at);
    const auto ones = static_cast<std::size_t>(std::countl_one(first));
    if (ones == 1 || ones == 8)
        return std::nullopt;
    const std::size_t width = std::max<std::size_t>(ones, 1);
    std::uint64_t value = ones == 7 ? 0 : first & (0x7FU >> ones);
    for (std::size_t i = 1; i < width; ++i) {
        const auto byte = bytes.u8(at + static_cast<std::int64_t>(i));
        if ((byte & 0xC0) != 0x80)
            return std::nullopt;
        value = value << 6 | (byte & 0x3F);
    }
    return CodedNumber { width, value };
}

} // namespace

std::optional<FLACFrame> FLACFrame::from(ByteView bytes)
{
    constexpr std::uint32_t sync = 0xFFF8'0000;
    constexpr std::uint32_t syncBits = 0xFFFE'0001; // the last bit of the four bytes is reserved
    constexpr std::array<std::uint8_t, 8> sampleBits { 0, 8, 12, 0, 16, 20, 24, 32 };
    constexpr unsigned reservedBits = 3;
    const auto start = bytes.u32be(0);
    const unsigned sizeCode = start >> 12 & 0xF;
    const unsigned rateCode = start >> 8 & 0xF;
    const unsigned bitsCode = start >> 1 & 7;
    const auto coded = codedNumber(bytes, 4);
    FLACFrame frame;
    frame.channels = static_cast<std::uint8_t>(start >> 4 & 0xF);
    if ((start & syncBits) != sync || sizeCode == 0 || rateCode == 15 || bitsCode == reservedBits
        || frame.channels > 10 || !coded)
        return std::nullopt;
    frame.number = coded->value;
    frame.hasMixedBlocks = (start & 0x1'0000) != 0;
    frame.bits = sampleBits[bitsCode];
    frame.blockSize = blockSizeOf(sizeCode);
    auto at = static_cast<std::int64_t>(4 + coded->width);
    if (sizeCode == 6)
        frame.blockSize = bytes.u8(at++) + 1U;
    if (sizeCode == 7) {
        frame.blockSize = bytes.u16be(at) + 1U;
        at += 2;
    }
    if (rateCode >= 12)
        at += rateCode == 12 ? 1 : 2;
    frame.headerSize = static_cast<std::size_t>(at) + 1;
    if (frame.headerSize > bytes.size()
        || headerChecksum(bytes.span().first(frame.headerSize)) != 0)
        return std::nullopt;
    return frame;
}

std::optional<std::size_t> FLACFrame::length(ByteView bytes, unsigned streamBits) const
{
    constexpr std::size_t checksumSize = 2;
    enum Assignment : std::uint8_t { leftAndSide = 8, sideAndRight = 9, middleAndSide = 10 };
    BitReader reader(bytes, headerSize);
    const unsigned sampleBits = bits != 0 ? bits : streamBits;
    const unsigned count = channels < leftAndSide ? channels + 1U : 2U;
    for (unsigned channel = 0; channel < count; ++channel) {
        // The difference of two channels takes a bit more.
        const bool isSide
            = channel == (channels == sideAndRight ? 0U : 1U) && channels >= leftAndSide;
        if (!skipSubframe(reader, blockSize, sampleBits + (isSide ? 1 : 0)))
            return std::nullopt;
    }
    const std::size_t size = (reader.position() + 7) / 8 + checksumSize;
    if (size > bytes.size() || addToChecksum(0, bytes.span().first(size)) != 0)
        return std::nullopt;
    return size;
}

std::uint16_t FLACFrame::addToChecksum(std::uint16_t value, ByteView bytes)
{
    for (const auto byte : bytes.span())
        value = static_cast<std::uint16_t>(value << 8 ^ frameChecksums[value >> 8 ^ byte]);
    return value;
}

} // namespace Formats
