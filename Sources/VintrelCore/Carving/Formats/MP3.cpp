#include "VintrelCore/Carving/Formats/Formats.h"
#include "VintrelCore/Foundation/MPEGFrame.h"

#include <algorithm>
#include <cstddef>

// A tag of the "ID3v2 informal standard", then audio frames of ISO/IEC 11172-3 (and 13818-3, and
// the common extension 2.5 to lower rates), then perhaps a tag of ID3v1.

namespace Formats {

namespace {

constexpr std::uint64_t limit = 1'073'741'824;
constexpr std::uint64_t maxPadding
    = 65'536; // between the tag and the first frame; taggers leave a few KB

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
        const auto frame = MPEGFrame::from(file.u32be(position));
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
        const auto frame = MPEGFrame::from(file.u32be(position));
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
    if (!tag)
        return std::nullopt;
    const auto sound = behindZeros(file, *tag, *tag + maxPadding);
    if (auto found = withFrames(candidate, sound, minFrames))
        return found;
    return file.matches(sound, "fLaC") ? flacBehindTag(candidate, sound)
                                       : aacBehindTag(candidate, sound);
}

Found mp3WithoutTag(const Candidate& candidate)
{
    constexpr int minFrames = 40; // about a second: pieces of films hold shorter runs
    return withFrames(candidate, 0, minFrames);
}

} // namespace Formats
