#include "VintrelCore/Foundation/MPEGFrame.h"

#include <cstddef>

namespace {

constexpr std::uint32_t minFrameLength = 24;

/// How often the sample rates of MPEG-1 are halved.
unsigned halvings(std::uint32_t version)
{
    if (version == MPEGFrame::mpeg1)
        return 0;
    return version == MPEGFrame::mpeg2 ? 1 : 2;
}

} // namespace

std::optional<MPEGFrame> MPEGFrame::from(std::uint32_t header)
{
    // kbit/s for the indices 1 to 14
    constexpr std::uint16_t bitRates[5][14] = {
        { 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448 }, // MPEG-1, layer I
        { 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384 },    // MPEG-1, layer II
        { 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320 },     // MPEG-1, layer III
        { 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224,
            256 }, // MPEG-2 and 2.5, layer I
        { 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144,
            160 }, // MPEG-2 and 2.5, layers II and III
    };
    constexpr std::uint32_t sampleRates[3]
        = { 44'100, 48'000, 32'000 }; // of MPEG-1; MPEG-2 halves, 2.5 quarters

    const std::uint32_t version = header >> 19 & 3;
    const std::uint32_t layer = header >> 17 & 3;
    const std::uint32_t rateIndex = header >> 12 & 15;
    const std::uint32_t sampleIndex = header >> 10 & 3;
    const std::uint32_t padding = header >> 9 & 1;
    if (header >> 21 != 0x7FF || version == 1 || layer == 0 || rateIndex < 1 || rateIndex > 14
        || sampleIndex > 2)
        return std::nullopt;

    const std::size_t row
        = version == mpeg1 ? std::uint32_t { layerI } - layer : (layer == layerI ? 3 : 4);
    const std::uint32_t bitRate = bitRates[row][rateIndex - 1] * 1000u;
    const std::uint32_t sampleRate = sampleRates[sampleIndex] >> halvings(version);
    std::uint32_t length = 0;
    if (layer == layerI)
        length = (12 * bitRate / sampleRate + padding) * 4;
    else if (layer == layerII || version == mpeg1)
        length = 144 * bitRate / sampleRate + padding;
    else
        length = 72 * bitRate / sampleRate + padding;
    if (length < minFrameLength)
        return std::nullopt;
    return MPEGFrame { length, header & 0x001E'0C00 };
}
