#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <optional>

// RFC 9639, Free Lossless Audio Codec (FLAC), frame structure.

namespace Formats {

/// What the header of a frame says.
struct FLACFrame {
    std::uint64_t number = 0; ///< of the frame, or of its first sample in a stream of mixed blocks
    std::uint32_t blockSize = 0; ///< samples of each channel
    std::uint8_t channels = 0;   ///< as coded: 8, 9 and 10 are two that are told from each other
    std::uint8_t bits = 0;       ///< of a sample; 0: as the stream says
    bool hasMixedBlocks = false;
    std::size_t headerSize = 0; ///< in bytes

    static constexpr std::size_t maxHeaderSize = 16;

    /// None unless a header whose checksum is right lies at the beginning of `bytes`.
    static std::optional<FLACFrame> from(ByteView bytes);

    /// The number of the frame behind this one.
    std::uint64_t nextNumber() const { return number + (hasMixedBlocks ? blockSize : 1); }

    /// The length of the frame that `bytes` begin with, by its contents; none when they do not hold
    /// together or its checksum is wrong. `streamBits`: of a sample.
    std::optional<std::size_t> length(ByteView bytes, unsigned streamBits) const;

    /// Goes on with the checksum `value` of a frame's bytes, which begins with 0. It is 0 again
    /// behind the whole of a sound frame.
    static std::uint16_t addToChecksum(std::uint16_t value, ByteView bytes);
};

} // namespace Formats
