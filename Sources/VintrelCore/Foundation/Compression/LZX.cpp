#include "VintrelCore/Foundation/Compression/Huffman.h"
#include "VintrelCore/Foundation/Compression/WindowsFormats.h"

#include <algorithm>

namespace Compression {

namespace {

constexpr std::size_t maxSize = 32'768; ///< of a chunk, of the window, and of usual blocks
constexpr std::size_t literals = 256;
constexpr std::size_t positionSlots = 30; ///< that the window has
constexpr std::size_t lengthHeaders = 8;
constexpr std::size_t mainSymbols = literals + positionSlots * lengthHeaders;
constexpr std::size_t lengthSymbols = 249;
constexpr std::size_t leastMatch = 2;
constexpr std::size_t recentOffsets = 3; ///< slots below are offsets that were used lately
constexpr int alignedBits = 3;

enum BlockType : std::uint32_t { verbatim = 1, aligned = 2, uncompressed = 3 };

/// An offset in a slot has so many bits of its own.
constexpr int footerBits(std::size_t slot) { return slot < 4 ? 0 : static_cast<int>(slot / 2) - 1; }

/// The first offset of a slot, counted with the recent ones in front.
constexpr std::size_t slotBase(std::size_t slot)
{
    return slot < 2 ? slot : (2 + slot % 2) << footerBits(slot);
}

class Decoder {
public:
    Decoder(ByteView packed, std::size_t size)
        : packed_(packed)
        , bits_(packed)
        , size_(size)
    {
        content_.reserve(size);
    }

    std::optional<Bytes> run()
    {
        // Every block has at least a byte, so that the size bounds their number.
        while (content_.size() < size_)
            if (!readBlock())
                return std::nullopt;
        return std::move(content_);
    }

private:
    bool readBlock()
    {
        const auto type = bits_.take(3);
        const std::size_t length = bits_.take(1) != 0 ? maxSize : bits_.take(16);
        const auto end = content_.size() + length;
        if (length == 0 || end > size_ || bits_.isOver())
            return false;
        switch (type) {
        case uncompressed:
            return copyBlock(length);
        case aligned:
            return readAlignedCode() && readCodes() && readTokens(end);
        case verbatim:
            alignedCode_.reset();
            return readCodes() && readTokens(end);
        default:
            return false;
        }
    }

    bool copyBlock(std::size_t length)
    {
        auto at = bits_.nextWord();
        for (auto& offset : recent_) {
            offset = packed_.u32le(at);
            at += sizeof(LE32);
        }
        const auto bytes = packed_.sub(at, static_cast<std::int64_t>(length)).span();
        content_.insert(content_.end(), bytes.begin(), bytes.end());
        bits_.restart(packed_, at + static_cast<std::int64_t>(length + length % 2));
        return bytes.size() == length;
    }

    bool readAlignedCode()
    {
        std::array<std::uint8_t, std::size_t { 1 } << alignedBits> lengths {};
        for (auto& length : lengths)
            length = static_cast<std::uint8_t>(bits_.take(3));
        alignedCode_ = HuffmanCode::from(lengths);
        return alignedCode_.has_value();
    }

    bool readCodes()
    {
        const std::span main(mainLengths_);
        if (!readLengths(main.first(literals)) || !readLengths(main.subspan(literals))
            || !readLengths(lengthLengths_))
            return false;
        mainCode_ = HuffmanCode::from(mainLengths_);
        lengthCode_ = HuffmanCode::from(lengthLengths_);
        return mainCode_ && lengthCode_;
    }

    /// Lengths are stored as what they differ from those of the block before.
    bool readLengths(std::span<std::uint8_t> lengths)
    {
        std::array<std::uint8_t, 20> own {};
        for (auto& length : own)
            length = static_cast<std::uint8_t>(bits_.take(4));
        const auto code = HuffmanCode::from(own);
        if (!code)
            return false;
        for (std::size_t at = 0; at < lengths.size();) {
            const auto symbol = code->decode(bits_);
            if (!symbol || bits_.isOver())
                return false;
            const auto run = readRun(*symbol, *code, lengths[at]);
            if (!run)
                return false;
            const auto count = std::min(run->count, lengths.size() - at);
            std::fill_n(lengths.begin() + static_cast<std::ptrdiff_t>(at), count, run->length);
            at += count;
        }
        return true;
    }

    struct Run {
        std::size_t count;
        std::uint8_t length;
    };

    std::optional<Run> readRun(std::uint16_t symbol, const HuffmanCode& code, std::uint8_t previous)
    {
        constexpr std::uint16_t lengthsInAll = HuffmanCode::maxLength + 1;
        const auto changed = [&](std::uint16_t difference) {
            return static_cast<std::uint8_t>((previous + lengthsInAll - difference) % lengthsInAll);
        };
        if (symbol < lengthsInAll)
            return Run { 1, changed(symbol) };
        if (symbol == 17)
            return Run { 4 + bits_.take(4), 0 };
        if (symbol == 18)
            return Run { 20 + bits_.take(5), 0 };
        const std::size_t count = 4 + bits_.take(1);
        const auto difference = code.decode(bits_);
        return difference && *difference < lengthsInAll
            ? std::optional<Run>({ count, changed(*difference) })
            : std::nullopt;
    }

    bool readTokens(std::size_t end)
    {
        while (content_.size() < end) {
            const auto symbol = mainCode_->decode(bits_);
            if (!symbol || bits_.isOver())
                return false;
            if (*symbol < literals)
                content_.push_back(static_cast<std::uint8_t>(*symbol));
            else if (!appendMatch(*symbol - literals, end))
                return false;
        }
        return true;
    }

    bool appendMatch(std::size_t match, std::size_t end)
    {
        std::size_t length = match % lengthHeaders + leastMatch;
        if (match % lengthHeaders == lengthHeaders - 1) {
            const auto more = lengthCode_->decode(bits_);
            if (!more)
                return false;
            length += *more;
        }
        const auto offset = takeOffset(match / lengthHeaders);
        if (!offset || *offset == 0 || *offset > content_.size() || length > end - content_.size())
            return false;
        for (std::size_t i = 0; i < length; ++i)
            content_.push_back(content_[content_.size() - *offset]);
        return true;
    }

    std::optional<std::size_t> takeOffset(std::size_t slot)
    {
        if (slot < recentOffsets) {
            std::swap(recent_.front(), recent_.at(slot));
            return recent_.front();
        }
        const int footer = footerBits(slot);
        std::size_t inSlot = 0;
        if (alignedCode_ && footer >= alignedBits) {
            inSlot = std::size_t { bits_.take(footer - alignedBits) } << alignedBits;
            const auto low = alignedCode_->decode(bits_);
            if (!low)
                return std::nullopt;
            inSlot += *low;
        } else {
            inSlot = bits_.take(footer);
        }
        const std::size_t offset = slotBase(slot) + inSlot - (recentOffsets - 1);
        recent_ = { offset, recent_[0], recent_[1] };
        return offset;
    }

    ByteView packed_;
    WordBits bits_;
    const std::size_t size_;
    Bytes content_;
    std::array<std::size_t, recentOffsets> recent_ { 1, 1, 1 };
    std::array<std::uint8_t, mainSymbols> mainLengths_ {};
    std::array<std::uint8_t, lengthSymbols> lengthLengths_ {};
    std::optional<HuffmanCode> mainCode_;
    std::optional<HuffmanCode> lengthCode_;
    std::optional<HuffmanCode> alignedCode_;
};

/// The packer has made the targets of calls absolute, which pack better; here they become relative
/// again.
void translateCalls(Bytes& content)
{
    constexpr std::uint8_t call = 0xE8;
    constexpr std::size_t callSize = 5;
    constexpr std::size_t untouchedEnd = 10;
    constexpr std::int32_t assumedFileSize = 12'000'000;
    for (std::size_t at = 0; at + untouchedEnd < content.size();) {
        if (content[at] != call) {
            ++at;
            continue;
        }
        const auto position = static_cast<std::int32_t>(at);
        const auto target
            = static_cast<std::int32_t>(ByteView(content).u32le(static_cast<std::int64_t>(at + 1)));
        if (target >= -position && target < assumedFileSize) {
            const LE32 relative(static_cast<std::uint32_t>(
                target >= 0 ? target - position : target + assumedFileSize));
            std::memcpy(content.data() + at + 1, &relative, sizeof(relative));
        }
        at += callSize;
    }
}

} // namespace

std::optional<Bytes> unpackLZX(ByteView packed, std::size_t size)
{
    if (size > maxSize)
        return std::nullopt;
    auto content = Decoder(packed, size).run();
    if (content)
        translateCalls(*content);
    return content;
}

} // namespace Compression
