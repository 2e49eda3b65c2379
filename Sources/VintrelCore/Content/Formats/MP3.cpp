#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Reading.h"
#include "VintrelCore/Content/Walker.h"
#include "VintrelCore/Foundation/MPEGFrame.h"

#include <algorithm>
#include <array>

// A tag of the "ID3v2 informal standard", then frames of ISO/IEC 11172-3 (and 13818-3), then
// perhaps a tag of ID3v1. The data of a frame may begin in the frames before it; how far back, it
// says itself, and how long they are, so that a foreign frame seldom fits.

namespace Content::Formats {

namespace {

constexpr std::uint64_t endTagSize = 128;
constexpr std::uint64_t maxPadding = 65'536; // between the tag and the first frame

/// What the side information of a layer III frame says of its data.
struct SideInformation {
    std::uint32_t length = 0; ///< of itself, in bytes
    std::uint32_t begin = 0;  ///< how far back the data begin, in bytes
    std::uint32_t used = 0;   ///< how long they are, in bytes
    bool isSound = true;      ///< whether all values are in their ranges
    static constexpr std::size_t maxLength = 32;

    SideInformation(ByteView bytes, const MPEGFrame& frame, bool isMono)
    {
        const bool isFull = frame.version() == MPEGFrame::mpeg1;
        const int channels = isMono ? 1 : 2;
        const int granules = isFull ? 2 : 1;
        const int channelBits = isFull ? 59 : 63;
        const int beginBits = isFull ? 9 : 8;
        const int privateBits = isFull ? (isMono ? 5 : 3) : (isMono ? 1 : 2);
        const int sharedBits = isFull ? 4 * channels : 0;
        begin = bits(bytes, 0, beginBits);
        int at = beginBits + privateBits + sharedBits;
        std::uint32_t usedBits = 0;
        for (int part = 0; part < granules * channels; ++part, at += channelBits) {
            constexpr std::uint32_t maxBigValues = 288;
            usedBits += bits(bytes, at, 12);
            isSound = isSound && bits(bytes, at + 12, 9) <= maxBigValues;
        }
        used = (usedBits + 7) / 8;
        length = static_cast<std::uint32_t>(at) / 8;
    }

private:
    static std::uint32_t bits(ByteView bytes, int at, int count)
    {
        const auto word = bytes.u32be(at / 8);
        return word << at % 8 >> (32 - count);
    }
};

class MP3Checker final : public Walker<MP3Checker> {
public:
    bool step(FileBytes& file)
    {
        switch (part_) {
        case Part::tag:
            return readTag(file);
        case Part::padding:
            return skipPadding(file);
        case Part::frames:
            return readFrame(file);
        }
        return false;
    }

private:
    enum class Part : std::uint8_t { tag, padding, frames };

    bool readTag(FileBytes& file)
    {
        constexpr std::size_t headerSize = 10;
        constexpr std::uint8_t hasFooter = 0x10;
        const auto bytes = bytesAt(file, 0, headerSize);
        if (bytes.size() < headerSize)
            return false;
        const ByteView header(bytes);
        std::uint64_t end = 0;
        if (header.matches("ID3", 0)) {
            std::uint64_t size = 0;
            for (int i = 6; i < 10; ++i)
                size = size << 7 | (header.u8(i) & 0x7F);
            end = headerSize + size + ((header.u8(5) & hasFooter) != 0 ? headerSize : 0);
        }
        if (file.size() < end)
            return false;
        moveTo(end);
        paddingEnd_ = end + maxPadding;
        part_ = Part::padding;
        return true;
    }

    bool skipPadding(FileBytes& file)
    {
        const auto bytes = file.stretch(position(), readSize).span();
        const auto end = std::ranges::find_if(bytes, [](std::uint8_t byte) { return byte != 0; });
        moveTo(position() + static_cast<std::uint64_t>(end - bytes.begin()));
        if (position() > paddingEnd_)
            breakAt(position());
        part_ = end == bytes.end() ? Part::padding : Part::frames;
        soundStart_ = position();
        return !bytes.empty();
    }

    bool readFrame(FileBytes& file)
    {
        if (soundEnd_ > 0 && position() >= soundEnd_)
            return readEnd(file);
        const auto header = load<BE32>(file, position());
        if (!header)
            return endWithFile(file);
        const auto frame = MPEGFrame::from(*header);
        if (!frame || (kind_ && frame->kind != *kind_))
            return isEndTag(file) ? readEnd(file) : breakIn(4);
        if (file.size() < position() + frame->length)
            return false;
        if (frame->layer() == MPEGFrame::layerIII && !fits(file, *frame, *header))
            return breakIn(frame->length);
        // Two frames of one kind in a row vouch for the place of the first.
        vouchUpTo(lastFrame_);
        lastFrame_ = position();
        if (!kind_)
            readLength(file, frame->length);
        kind_ = frame->kind;
        moveTo(position() + frame->length);
        return true;
    }

    bool breakIn(std::uint64_t length)
    {
        breakAt(position() + length - 1);
        return true;
    }

    /// Whether the data of the frame fit behind those of the frames before it.
    bool fits(FileBytes& file, const MPEGFrame& frame, std::uint32_t header)
    {
        constexpr std::uint32_t hasNoChecksum = 0x0001'0000;
        constexpr std::uint32_t checksumSize = 2;
        const std::uint32_t front = 4 + ((header & hasNoChecksum) != 0 ? 0 : checksumSize);
        const auto bytes = bytesAt(file, position() + front, SideInformation::maxLength + 4);
        const SideInformation side(bytes, frame, (header >> 6 & 3) == 3);
        const auto room = frame.length - std::min(frame.length, front + side.length);
        const auto available = side.begin + room;
        // What was cut out of a longer recording begins with a reference to what is missing.
        if (!kind_ && side.begin > 0)
            missBeginning();
        const bool isSound = side.isSound && (side.begin <= reservoir_ || !kind_)
            && (side.used <= available || !kind_);
        reservoir_ = side.used <= available ? available - side.used : 0;
        return isSound;
    }

    /// Reads the frame that many encoders put first, which says how long all of them are.
    void readLength(FileBytes& file, std::uint32_t frameLength)
    {
        constexpr std::uint32_t hasFrames = 1, hasBytes = 2;
        const auto bytes = bytesAt(file, position(), frameLength);
        const ByteView frame(bytes);
        for (const int at : { 13, 21, 36 }) { // behind the side information, by kind
            if (!frame.matches("Xing", at) && !frame.matches("Info", at))
                continue;
            const auto flags = frame.u32be(at + 4);
            const std::uint64_t length = frame.u32be(at + ((flags & hasFrames) != 0 ? 12 : 8));
            if ((flags & hasBytes) != 0 && length > frameLength)
                soundEnd_ = soundStart_ + length;
        }
    }

    bool isEndTag(FileBytes& file) { return isAt(file, position(), "TAG"); }

    /// Behind the last frame. The first frame's count and the frames that were met have to agree.
    bool readEnd(FileBytes& file)
    {
        constexpr std::uint64_t maxDifference = 4096; // in what encoders count in
        const bool isTagHere = isEndTag(file);
        if (file.size() < position() + endTagSize && (isTagHere || !file.isWhole()))
            return false;
        const bool agrees = soundEnd_ > 0 && position() + maxDifference > soundEnd_
            && position() < soundEnd_ + maxDifference;
        if (soundEnd_ > 0 && !agrees)
            return breakIn(4);
        endAt(position() + (isTagHere ? endTagSize : 0), agrees ? Proof::chain : Proof::none);
        return true;
    }

    /// Frames that merely end prove nothing.
    bool endWithFile(FileBytes& file)
    {
        if (!file.isWhole() || position() != file.size() || soundEnd_ > 0)
            return false;
        endAt(position(), Proof::none);
        return true;
    }

    Part part_ = Part::tag;
    std::uint64_t paddingEnd_ = 0;
    std::uint64_t soundStart_ = 0;
    std::uint64_t soundEnd_ = 0; ///< as the first frame says; 0 where it does not
    std::uint64_t lastFrame_ = 0;
    std::optional<std::uint32_t> kind_; ///< of the frames; none before the first
    std::uint32_t reservoir_ = 0;       ///< bytes of earlier frames that no data use yet
};

} // namespace

std::unique_ptr<Checker> mp3() { return std::make_unique<MP3Checker>(); }

} // namespace Content::Formats
