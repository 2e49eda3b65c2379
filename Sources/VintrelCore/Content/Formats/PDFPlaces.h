#pragma once

#include "VintrelCore/Content/Content.h"

#include <cstdint>
#include <string_view>

// ISO 32000-1, Cross-Reference Table and Cross-Reference Streams.

namespace Content::Formats {

/// The places of objects as the file tells them, compared with those where objects were met. Only
/// sums are held, so that a file may have as many as it likes.
class PDFPlaces {
public:
    void addMet(std::uint64_t number, std::uint64_t generation, std::uint64_t place)
    {
        met_ += digest(number, generation, place);
    }
    void addTold(std::uint64_t number, std::uint64_t generation, std::uint64_t place)
    {
        told_ += digest(number, generation, place);
        hasTold_ = true;
    }
    /// What a cross-reference stream tells; `dictionary` stands in front of it.
    void addTold(std::string_view dictionary, ByteView unpacked);
    /// Whether every object was met at its place, and none besides.
    bool agree() const { return hasTold_ && met_ == told_; }

private:
    static std::uint64_t digest(std::uint64_t number, std::uint64_t generation, std::uint64_t place)
    {
        constexpr std::uint64_t multiplier = 0x9E37'79B9'7F4A'7C15; // odd, its bits are mixed
        auto digest = (number << 20 ^ generation) * multiplier;
        digest = (digest ^ digest >> 31 ^ place) * multiplier;
        return digest ^ digest >> 29;
    }

    std::uint64_t met_ = 0, told_ = 0;
    bool hasTold_ = false;
};

/// Whether "number generation obj" lies at `place`, behind a little space at most.
bool isPDFObjectAt(FileBytes& file, std::uint64_t number, std::uint64_t place);

} // namespace Content::Formats
