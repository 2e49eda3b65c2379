#include "VintrelCore/Content/Formats/TIFFStripCheck.h"

#include <algorithm>
#include <array>
#include <cstdlib>

// "TIFF Revision 6.0", PackBits Compression and LZW Compression; Adobe's "TIFF Technical Notes" for
// deflate.

namespace Content::Formats {

void RowSteps::begin(std::uint32_t rowSize)
{
    if (rowSize != above_.size())
        above_.assign(rowSize <= maxRowSize ? rowSize : 0, 0);
    at_ = 0;
    isFirstRow_ = rows_ == 0;
    step_ = 0;
}

void RowSteps::add(ByteView bytes)
{
    if (above_.empty())
        return;
    for (const auto byte : bytes.span()) {
        step_ += static_cast<std::uint64_t>(std::abs(int { byte } - int { above_[at_] }));
        above_[at_] = byte;
        if (++at_ < above_.size())
            continue;
        at_ = 0;
        last_ = isFirstRow_ ? 0 : static_cast<double>(step_) / static_cast<double>(above_.size());
        sum_ += last_;
        ++rows_;
        isFirstRow_ = false;
        step_ = 0;
    }
}

void TIFFStripCheck::begin(const TIFFStrip& strip)
{
    strip_ = strip;
    position_ = strip.range.start;
    produced_ = 0;
    isOver_ = false;
    isDecoded_ = false;
    literals_ = 0;
    isRepeat_ = false;
    inflater_.reset();
    lzw_.reset();
    if (strip.coding == TIFFStrip::Coding::deflate && Compression::hasZlib())
        inflater_.emplace(Compression::Inflater::Wrapping::zlib);
    if (strip.coding == TIFFStrip::Coding::lzw)
        lzw_.emplace(LZWCheck::Kind::tiff, 8);
    if (strip.isSmooth)
        steps_.begin(strip.rowSize);
}

TIFFStripCheck::Result TIFFStripCheck::advance(FileBytes& file)
{
    constexpr std::uint64_t headSize = 2;
    if (position_ == strip_.range.start && strip_.range.end - position_ >= headSize) {
        const auto head = load<BE16>(file, position_);
        if (!head)
            return Result::waits;
        constexpr std::uint16_t jpegStart = 0xFFD8;
        if (strip_.coding == TIFFStrip::Coding::jpeg && *head != jpegStart) {
            position_ += headSize;
            return Result::wrong;
        }
        // Before revision 6 some programs wrote LZW with the bits the other way round.
        if ((*head & 0xFF01) == 1)
            lzw_.reset();
    }
    while (position_ < strip_.range.end) {
        const auto bytes = file.stretch(position_,
            static_cast<std::size_t>(
                std::min<std::uint64_t>(readSize, strip_.range.end - position_)));
        if (bytes.empty())
            return Result::waits;
        position_ += bytes.size();
        if (!isOver_ && !take(bytes))
            return Result::wrong;
    }
    return isEndSound() ? Result::whole : Result::wrong;
}

bool TIFFStripCheck::take(ByteView bytes)
{
    if (inflater_)
        return takeDeflate(bytes);
    if (lzw_)
        return takeLZW(bytes);
    if (strip_.coding == TIFFStrip::Coding::packBits)
        return takePackBits(bytes);
    if (strip_.isSmooth)
        steps_.add(bytes);
    return true;
}

bool TIFFStripCheck::takeDeflate(ByteView bytes)
{
    using State = Compression::Inflater::State;
    std::array<std::uint8_t, readSize> unpacked;
    for (std::size_t done = 0; !isOver_;) {
        const auto progress = inflater_->unpack(bytes.span().subspan(done), unpacked);
        done += progress.consumed;
        produced_ += progress.produced;
        isOver_ = progress.state == State::ended;
        if (progress.state == State::damaged)
            return false;
        if (progress.consumed == 0 && progress.produced == 0)
            break;
    }
    return strip_.unpacked == 0 || produced_ <= strip_.unpacked;
}

bool TIFFStripCheck::takeLZW(ByteView bytes)
{
    auto state = LZWCheck::State::open;
    for (const auto byte : bytes.span()) {
        state = lzw_->add(byte);
        if (state != LZWCheck::State::open)
            break;
    }
    produced_ = lzw_->produced();
    isOver_ = state == LZWCheck::State::ended;
    return state != LZWCheck::State::wrong
        && (strip_.unpacked == 0 || produced_ <= strip_.unpacked);
}

bool TIFFStripCheck::takePackBits(ByteView bytes)
{
    constexpr std::uint32_t nothing = 128;
    for (const std::uint32_t byte : bytes.span()) {
        if (literals_ > 0) {
            --literals_;
        } else if (isRepeat_) {
            isRepeat_ = false;
        } else if (byte < nothing) {
            literals_ = byte + 1;
            produced_ += literals_;
        } else if (byte > nothing) {
            isRepeat_ = true;
            produced_ += 2 * nothing + 1 - byte;
        }
    }
    return strip_.unpacked == 0 || produced_ <= strip_.unpacked;
}

/// More lenient: the codes of LZW need not end with their end code.
bool TIFFStripCheck::isEndSound()
{
    const bool isPacked = inflater_ || lzw_ || strip_.coding == TIFFStrip::Coding::packBits;
    if (!isPacked || strip_.unpacked == 0)
        return true;
    isDecoded_ = produced_ == strip_.unpacked && (!inflater_ || isOver_);
    return isDecoded_;
}

} // namespace Content::Formats
