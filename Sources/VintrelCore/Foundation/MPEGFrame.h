#pragma once

#include <cstdint>
#include <optional>

// ISO/IEC 11172-3 (and 13818-3, and the common extension 2.5 to lower rates), frame of audio.

/// What the header of a frame of MPEG sound says, as far as it decides where the next one lies.
struct MPEGFrame {
    std::uint32_t length; ///< in bytes, header included
    /// The bits for version, layer and sample rate: they stay the same through a file.
    std::uint32_t kind;

    enum Version : std::uint32_t { mpeg25 = 0, mpeg2 = 2, mpeg1 = 3 };
    enum Layer : std::uint32_t { layerIII = 1, layerII = 2, layerI = 3 };
    Version version() const { return static_cast<Version>(kind >> 19 & 3); }
    Layer layer() const { return static_cast<Layer>(kind >> 17 & 3); }

    /// None when no frame of a known length begins with these four bytes.
    static std::optional<MPEGFrame> from(std::uint32_t header);
};
