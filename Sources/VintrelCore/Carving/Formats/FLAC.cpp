#include "VintrelCore/Carving/Formats/AudioTags.h"
#include "VintrelCore/Carving/Formats/FLACFrame.h"
#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// RFC 9639, Free Lossless Audio Codec (FLAC). Frames do not say how long they are: each ends where
// the header of the next one lies, and the last one where its contents do.

namespace Formats {

namespace {

constexpr std::uint64_t signatureSize = 4; // "fLaC"
constexpr std::uint64_t limit = 8'589'934'592;
constexpr int maxMetadata = 1000;
constexpr int maxFrames = 100'000'000;

struct MetadataHeader {
    std::uint8_t type; // 0  the highest bit: the last one
    std::uint8_t high; // 1  of the length
    BE16 low;          // 2

    bool isLast() const { return (type & 0x80) != 0; }
    std::uint64_t length() const { return std::uint64_t { high } << 16 | low; }
};
static_assert(sizeof(MetadataHeader) == 4);

struct StreamInfo {
    BE16 minBlock, maxBlock;                    //  0, 2
    std::array<std::uint8_t, 3> minFrame;       //  4
    std::array<std::uint8_t, 3> maxFrame;       //  7
    BE64 format;                                // 10  20 bits rate, 3 channels, 5 bits, 36 samples
    std::array<std::uint8_t, 16> soundChecksum; // 18

    unsigned channels() const { return static_cast<unsigned>(format >> 41 & 7) + 1; }
    unsigned bits() const { return static_cast<unsigned>(format >> 36 & 0x1F) + 1; }
    /// Of each channel; 0 when the recorder did not know.
    std::uint64_t samples() const { return format & 0xF'FFFF'FFFF; }
    /// A frame that is not compressed at all takes hardly more than this.
    std::uint64_t frameBound() const
    {
        constexpr std::uint64_t overhead = 1024;
        return std::uint64_t { maxBlock } * channels() * (bits() + 1) / 8 + overhead;
    }
};
static_assert(sizeof(StreamInfo) == 34 && offsetof(StreamInfo, format) == 10);

/// Where the first frame begins behind the metadata at `position`; none when this does not hold
/// together.
std::optional<std::uint64_t> behindMetadata(RandomReader& file, std::uint64_t position)
{
    constexpr std::uint8_t invalidType = 127;
    for (int count = 0; count < maxMetadata && position < limit; ++count) {
        const auto header = file.load<MetadataHeader>(position);
        if ((header.type & 0x7F) == invalidType)
            break;
        position += sizeof header + header.length();
        if (header.isLast())
            return position;
    }
    return std::nullopt;
}

std::optional<FLACFrame> frameAt(RandomReader& file, std::uint64_t position)
{
    const auto bytes = file.load<std::array<std::uint8_t, FLACFrame::maxHeaderSize>>(position);
    return FLACFrame::from(ByteView(bytes));
}

/// The checksum of the bytes in [from, to).
std::uint16_t checksumOf(RandomReader& file, std::uint64_t from, std::uint64_t to)
{
    std::uint16_t value = 0;
    while (from < to) {
        const auto bytes = file.stretch(from).span();
        const auto count
            = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), to - from));
        if (count == 0)
            break;
        value = FLACFrame::addToChecksum(value, bytes.first(count));
        file.addWork(count);
        from += count;
    }
    return value;
}

/// Where the frame behind `frame`, which begins at `position`, begins by its header; none before
/// `end`.
std::optional<std::uint64_t> nextFrame(
    RandomReader& file, const FLACFrame& frame, std::uint64_t position, std::uint64_t end)
{
    constexpr std::size_t workPerMatch = 256;
    const std::string_view sync = frame.hasMixedBlocks ? "\xFF\xF9" : "\xFF\xF8";
    position += frame.headerSize;
    while (const auto match = file.find(sync, position, end)) {
        file.addWork(workPerMatch);
        const auto next = frameAt(file, *match);
        if (next && next->number == frame.nextNumber() && next->channels <= 10)
            return match;
        position = *match + 1;
    }
    return std::nullopt;
}

/// Where the last frame ends, which begins at `position`; none when it is damaged.
std::optional<std::uint64_t> endOfLast(
    RandomReader& file, const FLACFrame& frame, std::uint64_t position, const StreamInfo& info)
{
    constexpr std::size_t workPerByte = 32; // bit by bit
    const auto bound = std::min(info.frameBound(), file.size() - position);
    const auto bytes = file.bytes(position, static_cast<std::size_t>(bound));
    const auto length = frame.length(bytes, info.bits());
    file.addWork(workPerByte * length.value_or(bytes.size()));
    return length ? std::optional(position + *length) : std::nullopt;
}

} // namespace

Found flac(const Candidate& candidate) { return flacBehindTag(candidate, 0); }

Found flacBehindTag(const Candidate& candidate, std::uint64_t tagSize)
{
    auto& file = candidate.file;
    const std::uint64_t metadata = tagSize + signatureSize;
    const auto first = file.load<MetadataHeader>(metadata);
    const auto info = file.load<StreamInfo>(metadata + sizeof first);
    if ((first.type & 0x7F) != 0 || first.length() != sizeof info)
        return std::nullopt;
    auto position = behindMetadata(file, metadata);
    std::uint64_t samples = 0;
    bool isProved = true;
    for (int count = 0; position && count < maxFrames && *position < limit; ++count) {
        const auto frame = frameAt(file, *position);
        if (!frame || frame->blockSize > info.maxBlock)
            break;
        samples += frame->blockSize;
        const bool isLast = info.samples() != 0 && samples >= info.samples();
        const auto next = isLast
            ? std::nullopt
            : nextFrame(file, *frame, *position, *position + info.frameBound());
        if (!next || checksumOf(file, *position, *next) != 0) {
            // The frame of another file may have the next number.
            if (const auto end = endOfLast(file, *frame, *position, info))
                return candidate.found(behindAudioTags(file, *end), "flac", isProved);
            isProved = false;
        }
        position = next;
    }
    return std::nullopt;
}

} // namespace Formats
