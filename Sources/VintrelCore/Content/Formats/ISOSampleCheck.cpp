#include "VintrelCore/Content/Formats/ISOSampleCheck.h"

#include <algorithm>
#include <bit>

// ISO/IEC 14496-15 for pictures in units with their lengths; ISO/IEC 14496-10 and 23008-2, syntax
// of the NAL unit; ISO/IEC 14496-3, raw_data_block, for the sound of AAC.

namespace Content::Formats {

namespace {

/// Sound that ends as its format demands by chance does so this often in a row hardly ever.
constexpr int tellingRow = 8;

bool beginsAsDemanded(SampleKind kind, ByteView bytes)
{
    switch (kind) {
    case SampleKind::mpeg4Video: // a start code
        return bytes.u16be(0) == 0 && bytes.u8(2) == 1;
    case SampleKind::h263: // the 22 bits of a picture's start code
        return bytes.u16be(0) == 0 && (bytes.u8(2) & 0xFC) == 0x80;
    case SampleKind::jpeg:
        return bytes.u16be(0) == 0xFFD8;
    default:
        return true;
    }
}

/// Whether two bytes can begin a unit: types that nobody uses, and a reserved bit.
bool beginsUnit(SampleKind kind, std::uint8_t first, std::uint8_t second)
{
    if ((first & 0x80) != 0)
        return false;
    if (kind == SampleKind::avc) {
        constexpr int lastType = 23;
        const int type = first & 0x1F;
        return type >= 1 && type <= lastType;
    }
    constexpr int lastUsedType = 40;
    return first >> 1 <= lastUsedType && (second & 7) != 0;
}

/// Whether a block of sound ends with the mark of three bits, and zero bits up to the byte's end.
bool endsBlock(std::uint16_t last)
{
    constexpr int maxPadding = 7;
    const int padding = std::countr_zero(last);
    return last != 0 && padding <= maxPadding && (last >> padding & 7) == 7;
}

} // namespace

void SampleCheck::begin(SampleFormat format, ByteRange sample)
{
    format_ = format;
    sample_ = sample;
    position_ = sample.start;
    unitEnd_ = sample.start;
}

SampleCheck::Result SampleCheck::advance(FileBytes& file)
{
    switch (format_.kind) {
    case SampleKind::avc:
    case SampleKind::hevc:
        return checkUnits(file);
    case SampleKind::aac:
        return checkSound(file);
    default:
        return checkPrefix(file);
    }
}

SampleCheck::Result SampleCheck::checkPrefix(FileBytes& file)
{
    constexpr std::uint64_t prefix = 4;
    if (file.size() < std::min(sample_.end, sample_.start + prefix))
        return Result::waits;
    const auto head = bytesAt(file, sample_.start, prefix);
    if (sample_.end - sample_.start >= prefix && !beginsAsDemanded(format_.kind, head)) {
        position_ = sample_.start + prefix - 1;
        return Result::wrong;
    }
    firm_ = sample_.start;
    if (file.size() < sample_.end)
        return Result::waits;
    position_ = sample_.end;
    return Result::whole;
}

SampleCheck::Result SampleCheck::checkSound(FileBytes& file)
{
    if (file.size() < sample_.end)
        return Result::waits;
    position_ = sample_.end;
    if (sample_.end - sample_.start < sizeof(BE16) || isSoundMute_)
        return Result::whole;
    constexpr int lastElement = 6; // 7 ends a block
    const auto first = load<std::uint8_t>(file, sample_.start).value_or(0);
    const auto last = load<BE16>(file, sample_.end - sizeof(BE16)).value_or(BE16 {});
    if (first >> 5 <= lastElement && endsBlock(last)) {
        // A row that is long enough vouches for its start.
        if (soundInRow_++ % tellingRow == 0) {
            if (soundInRow_ > 1)
                firm_ = std::max(firm_, rowStart_);
            rowStart_ = sample_.start;
        }
        isSoundTelling_ |= soundInRow_ >= tellingRow;
        return Result::whole;
    }
    isSoundMute_ = !isSoundTelling_;
    return isSoundMute_ ? Result::whole : Result::wrong;
}

SampleCheck::Result SampleCheck::checkUnits(FileBytes& file)
{
    while (position_ < sample_.end) {
        if (position_ == unitEnd_) {
            const std::uint64_t beginning = format_.lengthSize + 2u;
            if (sample_.end - position_ < beginning) {
                position_ = sample_.end;
                return Result::wrong;
            }
            if (file.size() < position_ + beginning)
                return Result::waits;
            if (!beginUnit(file))
                return Result::wrong;
        }
        const auto bytes = file.stretch(position_,
            static_cast<std::size_t>(std::min<std::uint64_t>(readSize, unitEnd_ - position_)));
        if (bytes.empty())
            return Result::waits;
        const bool isSound = isUnitSound(bytes);
        position_ += bytes.size();
        if (!isSound)
            return Result::wrong;
    }
    return Result::whole;
}

bool SampleCheck::beginUnit(FileBytes& file)
{
    const auto head = bytesAt(file, position_, format_.lengthSize + 2u);
    std::uint64_t length = 0;
    for (int i = 0; i < format_.lengthSize; ++i)
        length = length << 8 | ByteView(head).u8(i);
    const auto start = position_ + format_.lengthSize;
    if (length < 2 || length > sample_.end - start
        || !beginsUnit(format_.kind, ByteView(head).u8(format_.lengthSize),
            ByteView(head).u8(format_.lengthSize + 1))) {
        position_ = start + 1;
        return false;
    }
    firm_ = std::max(firm_, position_);
    position_ = start;
    unitEnd_ = start + length;
    zeros_ = 0;
    return true;
}

/// Inside a unit two zero bytes are never followed by 0, 1 or 2: an escape stands between. More
/// lenient: some writers leave a few zeros at a unit's end.
bool SampleCheck::isUnitSound(ByteView bytes)
{
    constexpr int maxZerosAtEnd = 8;
    for (const auto byte : bytes.span()) {
        if (byte == 0) {
            if (++zeros_ > maxZerosAtEnd)
                return false;
            continue;
        }
        if (zeros_ > 2 || (zeros_ == 2 && byte < 3))
            return false;
        zeros_ = 0;
    }
    return true;
}

} // namespace Content::Formats
