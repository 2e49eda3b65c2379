#pragma once

#include "VintrelCore/Foundation/Compression/WordBits.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Compression {

/// A canonical Huffman code: shorter codes are the smaller ones, and of one length those of smaller
/// symbols.
class HuffmanCode {
public:
    static constexpr int maxLength = 16;

    /// None when there are more codes than room for them. `lengths`: of each symbol's code, in
    /// bits, at most `maxLength`; 0: the symbol has none. A code without symbols decodes nothing.
    static std::optional<HuffmanCode> from(std::span<const std::uint8_t> lengths);

    /// Whether all bits are a code.
    bool isComplete() const { return ends_.back() == 1U << maxLength; }
    /// The next symbol; none for bits that are no code.
    std::optional<std::uint16_t> decode(WordBits& bits) const;

private:
    std::array<std::uint32_t, maxLength + 1> ends_ {};   ///< of each length's codes, at 16 bits
    std::array<std::uint32_t, maxLength + 1> starts_ {}; ///< the same
    std::array<std::uint32_t, maxLength + 1> first_ {};  ///< the place of each length's symbols
    std::vector<std::uint16_t> symbols_;                 ///< in the order of their codes
};

} // namespace Compression
