#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <cstddef>

// A tag of the "ID3v2 informal standard", then audio frames of ISO/IEC 11172-3 (and 13818-3, and
// the common extension 2.5 to lower rates), then perhaps a tag of ID3v1.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr std::uint64_t maxPadding
    = 65'536; // between the tag and the first frame; taggers leave a few KB
constexpr std::uint32_t minFrameLength = 24;

/// What a frame's header says, as far as it decides where the next one lies.
struct Frame {
    std::uint32_t length; ///< in bytes, header included
    std::uint32_t
        kind; ///< the bits for version, layer and sample rate: they stay the same through a file
};

enum Version { mpeg25 = 0, mpeg2 = 2, mpeg1 = 3 };
enum Layer { layerIII = 1, layerII = 2, layerI = 3 };

/// How often the sample rates of MPEG-1 are halved.
unsigned halvings(std::uint32_t version)
{
    if (version == mpeg1)
        return 0;
    return version == mpeg2 ? 1 : 2;
}

/// None when no audio frame of a known length begins with these four bytes.
std::optional<Frame> mpegFrameLength(std::uint32_t header)
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

    const std::size_t row = version == mpeg1 ? layerI - layer : (layer == layerI ? 3 : 4);
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
    return Frame { length, header & 0x001E'0C00 };
}

struct TagHeader {
    std::array<std::uint8_t, 3> identifier; // 0  "ID3"
    std::uint8_t major, revision;           // 3, 4
    std::uint8_t flags;                     // 5
    std::array<std::uint8_t, 4> size; // 6  seven bits a byte, so that it never looks like a frame
};
static_assert(sizeof(TagHeader) == 10 && offsetof(TagHeader, size) == 6);

/// The size of the tag at the beginning; none when there is none.
std::optional<std::uint64_t> tagSize(RandomReader& file)
{
    constexpr std::uint8_t hasFooter = 0x10;
    const auto header = file.load<TagHeader>(0);
    if (!ByteView(header.identifier).matches("ID3", 0) || header.major < 2 || header.major > 4)
        return std::nullopt;
    std::uint64_t size = 0;
    for (const auto byte : header.size) {
        if (byte >= 0x80)
            return std::nullopt;
        size = size << 7 | byte;
    }
    // The footer is a copy of the header.
    const std::uint64_t footerSize = (header.flags & hasFooter) != 0 ? sizeof header : 0;
    return sizeof header + size + footerSize;
}

/// The first position from `position` on that holds no zero, or `limit`.
std::uint64_t behindZeros(RandomReader& file, std::uint64_t position, std::uint64_t limit)
{
    while (position < limit) {
        const auto bytes = file.stretch(position).span();
        const auto zeros = bytes.first(
            static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), limit - position)));
        const auto end = std::ranges::find_if(zeros, [](std::uint8_t byte) { return byte != 0; });
        const auto count = static_cast<std::size_t>(end - zeros.begin());
        file.addWork(count);
        position += count;
        if (zeros.empty() || end != zeros.end())
            break;
    }
    return position;
}

/// Whether sound of another kind goes on at `position`, as where two files were joined: between two
/// runs that are each too long for chance.
bool isJoint(RandomReader& file, std::uint64_t position, int framesBefore)
{
    constexpr int minRun = 8;
    if (framesBefore < minRun)
        return false;
    std::optional<std::uint32_t> kind;
    for (int count = 0; count < minRun; ++count) {
        const auto frame = mpegFrameLength(file.u32be(position));
        if (!frame || (kind && frame->kind != *kind))
            return false;
        kind = frame->kind;
        position += frame->length;
    }
    return true;
}

/// The file whose first frame lies at `position`; none with fewer frames than asked for.
Found withFrames(const Candidate& candidate, std::uint64_t position, int minFrames)
{
    constexpr std::uint64_t endTagSize = 128;
    auto& file = candidate.file;
    int frames = 0;
    std::optional<std::uint32_t> kind;
    while (position < limit && candidate.fits(position + 4)) {
        const auto frame = mpegFrameLength(file.u32be(position));
        if (!frame || (kind && frame->kind != *kind && !isJoint(file, position, frames)))
            break;
        kind = frame->kind;
        position += frame->length;
        ++frames;
    }
    if (frames < minFrames || position >= limit)
        return std::nullopt;
    if (candidate.fits(position + endTagSize) && file.matches(position, "TAG"))
        position += endTagSize;
    return candidate.proved(position, "mp3");
}

} // namespace

Found mp3(const Candidate& candidate)
{
    constexpr int minFrames = 3; // fewer may be chance
    auto& file = candidate.file;
    const auto tag = tagSize(file);
    return tag ? withFrames(candidate, behindZeros(file, *tag, *tag + maxPadding), minFrames)
               : std::nullopt;
}

Found mp3WithoutTag(const Candidate& candidate)
{
    constexpr int minFrames = 40; // about a second: pieces of films hold shorter runs
    return withFrames(candidate, 0, minFrames);
}

} // namespace Formats
