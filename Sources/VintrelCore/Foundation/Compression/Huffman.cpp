#include "VintrelCore/Foundation/Compression/Huffman.h"

namespace Compression {

std::optional<HuffmanCode> HuffmanCode::from(std::span<const std::uint8_t> lengths)
{
    std::array<std::uint32_t, maxLength + 1> counts {};
    for (const auto length : lengths)
        ++counts.at(length);
    HuffmanCode code;
    std::uint32_t end = 0;
    std::uint32_t place = 0;
    for (std::size_t length = 1; length <= maxLength; ++length) {
        code.starts_.at(length) = end;
        code.first_.at(length) = place;
        end += counts.at(length) << (maxLength - length);
        place += counts.at(length);
        code.ends_.at(length) = end;
    }
    if (end > 1U << maxLength)
        return std::nullopt;
    code.symbols_.resize(place);
    auto next = code.first_;
    for (std::size_t symbol = 0; symbol < lengths.size(); ++symbol)
        if (lengths[symbol] != 0)
            code.symbols_[next.at(lengths[symbol])++] = static_cast<std::uint16_t>(symbol);
    return code;
}

std::optional<std::uint16_t> HuffmanCode::decode(WordBits& bits) const
{
    const auto ahead = bits.peek();
    for (std::size_t length = 1; length <= maxLength; ++length)
        if (ahead < ends_[length]) {
            bits.skip(static_cast<int>(length));
            return symbols_[first_[length] + ((ahead - starts_[length]) >> (maxLength - length))];
        }
    return std::nullopt;
}

} // namespace Compression
