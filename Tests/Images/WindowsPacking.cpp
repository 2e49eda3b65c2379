#include "Tests/Images/WindowsPacking.h"

#include "Tests/Images/DiskImage.h"

#include <algorithm>
#include <array>
#include <bit>

namespace {

/// Words of 16 bits, low byte first, that are filled from their highest bit on.
class BitWriter {
public:
    void put(std::size_t value, int count)
    {
        for (int bit = count - 1; bit >= 0; --bit) {
            if (used_ % 16 == 0)
                bytes.resize(bytes.size() + 2);
            const auto word = bytes.size() - 2;
            const auto inWord = static_cast<std::size_t>(15 - used_++ % 16);
            bytes[word + inWord / 8] |= static_cast<std::uint8_t>((value >> bit & 1) << inWord % 8);
        }
    }
    /// Ends the word, also a full one, as in front of stored bytes.
    void pad()
    {
        do {
            put(0, 1);
        } while (used_ % 16 != 0);
    }

    Bytes bytes;

private:
    int used_ = 0;
};

struct Match {
    std::size_t length = 0, distance = 0;
};

/// The longest repetition at a few distances.
Match matchAt(const Bytes& content, std::size_t at, std::size_t end, std::size_t most)
{
    Match best;
    for (const std::size_t distance : { 1u, 2u, 3u, 26u, 300u, 2000u }) {
        std::size_t length = 0;
        while (distance <= at && at + length < end && length < most
            && content[at + length] == content[at + length - distance])
            ++length;
        if (length > best.length)
            best = { length, distance };
    }
    return best;
}

int widthOf(std::size_t value) { return static_cast<int>(std::bit_width(value)) - 1; }

class LZXWriter {
public:
    explicit LZXWriter(const Bytes& content)
        : content_(content)
    {
    }

    Bytes write()
    {
        const auto third = content_.size() / 3;
        putBlock(1, third);
        putBlock(2, 2 * third);
        putStored(content_.size());
        return bits_.bytes;
    }

private:
    /// Of an offset above 1.
    static std::size_t slotOf(std::size_t offset)
    {
        const auto width = static_cast<std::size_t>(widthOf(offset));
        return 2 * width + (offset >> (width - 1) & 1);
    }

    void putHeader(std::size_t type, std::size_t size)
    {
        bits_.put(type, 3);
        bits_.put(0, 1);
        bits_.put(size, 16);
    }

    /// 12 codes of four bits and eight of five, for lengths of codes.
    void putLengthCode(std::size_t symbol)
    {
        symbol < 12 ? bits_.put(symbol, 4) : bits_.put(symbol + 12, 5);
    }

    void putLengths(std::vector<std::size_t>& previous, std::size_t first, std::size_t count,
        const std::function<std::size_t(std::size_t)>& lengthOf)
    {
        for (std::size_t symbol = 0; symbol < 20; ++symbol)
            bits_.put(symbol < 12 ? 4 : 5, 4);
        for (std::size_t at = first; at < first + count;) {
            const auto length = lengthOf(at);
            const auto change = (previous[at] + 17 - length) % 17;
            const bool isRun = at + 4 <= first + count && lengthOf(at + 1) == length
                && lengthOf(at + 3) == length;
            if (isRun) {
                putLengthCode(19);
                bits_.put(0, 1);
            }
            putLengthCode(change);
            for (int i = isRun ? 4 : 1; i > 0; --i)
                previous[at++] = length;
        }
    }

    void putMain(std::size_t symbol)
    {
        symbol < 16 ? bits_.put(symbol, 8) : bits_.put(symbol + 16, 9);
    }

    void putMatch(const Match& match, bool isAligned)
    {
        const auto recent = std::ranges::find(recent_, match.distance);
        const auto offset = match.distance + 2;
        const auto slot = recent != recent_.end()
            ? static_cast<std::size_t>(recent - recent_.begin())
            : slotOf(offset);
        const auto header = std::min<std::size_t>(match.length - 2, 7);
        putMain(256 + 8 * slot + header);
        if (header == 7) {
            const auto more = match.length - 9;
            more < 7 ? bits_.put(more, 7) : bits_.put(more + 7, 8);
        }
        if (recent != recent_.end()) {
            std::swap(*recent, recent_.front());
            return;
        }
        const int footer = slot < 4 ? 0 : static_cast<int>(slot / 2) - 1;
        const auto inSlot = offset & ((std::size_t { 1 } << footer) - 1);
        if (isAligned && footer >= 3) {
            bits_.put(inSlot >> 3, footer - 3);
            const auto low = inSlot & 7; // the smaller, the shorter
            bits_.put((std::size_t { 2 } << std::min<std::size_t>(low, 6)) - (low < 7 ? 2 : 1),
                static_cast<int>(std::min<std::size_t>(low + 1, 7)));
        } else {
            bits_.put(inSlot, footer);
        }
        recent_ = { match.distance, recent_[0], recent_[1] };
    }

    void putBlock(std::size_t type, std::size_t end)
    {
        putHeader(type, end - at_);
        for (std::size_t symbol = 0; type == 2 && symbol < 8; ++symbol)
            bits_.put(std::min<std::size_t>(symbol + 1, 7), 3);
        const auto mainLength = [](std::size_t symbol) { return symbol < 16 ? 8 : 9; };
        putLengths(mainLengths_, 0, 256, mainLength);
        putLengths(mainLengths_, 256, 240, mainLength);
        putLengths(lengthLengths_, 0, 249, [](std::size_t symbol) { return symbol < 7 ? 7 : 8; });
        while (at_ < end) {
            const auto match = matchAt(content_, at_, end, 257);
            if (match.length > 2)
                putMatch(match, type == 2);
            else
                putMain(content_[at_]);
            at_ += match.length > 2 ? match.length : 1;
        }
    }

    void putStored(std::size_t end)
    {
        putHeader(3, end - at_);
        bits_.pad();
        Bytes stored(12);
        putLE(stored, 0, 1, 4);
        stored.insert(
            stored.end(), content_.begin() + static_cast<std::ptrdiff_t>(at_), content_.end());
        bits_.bytes.insert(bits_.bytes.end(), stored.begin(), stored.end());
    }

    const Bytes& content_;
    BitWriter bits_;
    std::size_t at_ = 0;
    std::array<std::size_t, 3> recent_ { 1, 1, 1 };
    std::vector<std::size_t> mainLengths_ = std::vector<std::size_t>(496);
    std::vector<std::size_t> lengthLengths_ = std::vector<std::size_t>(249);
};

} // namespace

Bytes WindowsPacking::xpress(const Bytes& content)
{
    BitWriter bits;
    for (std::size_t at = 0; at < content.size();) {
        const auto match = matchAt(content, at, content.size(), 17);
        if (match.length < 3) {
            bits.put(content[at++], 9);
            continue;
        }
        const auto width = widthOf(match.distance);
        bits.put(256 + static_cast<std::size_t>(width) * 16 + match.length - 3, 9);
        bits.put(match.distance - (std::size_t { 1 } << width), width);
        at += match.length;
    }
    return joined({ Bytes(256, 0x99), bits.bytes });
}

Bytes WindowsPacking::lzx(const Bytes& content) { return LZXWriter(content).write(); }

Bytes WindowsPacking::stream(const Bytes& content, std::size_t chunkSize,
    const std::function<Bytes(const Bytes& chunk)>& pack)
{
    Bytes table;
    Bytes chunks;
    for (std::size_t at = 0; at < content.size(); at += chunkSize) {
        if (at > 0) {
            table.resize(table.size() + 4);
            putLE(table, table.size() - 4, chunks.size(), 4);
        }
        const auto first = content.begin() + static_cast<std::ptrdiff_t>(at);
        const Bytes chunk(
            first, first + static_cast<std::ptrdiff_t>(std::min(chunkSize, content.size() - at)));
        const auto packed = pack(chunk);
        chunks = joined({ chunks, packed.size() < chunk.size() ? packed : chunk });
    }
    return joined({ table, chunks });
}

Bytes WindowsPacking::reparsePoint(std::uint32_t algorithm, std::uint32_t provider)
{
    Bytes value(28);
    putLE(value, 0, 0x80000017, 4);
    putLE(value, 4, 20, 2);
    putLE(value, 8, 1, 4);
    putLE(value, 12, provider, 4);
    putLE(value, 16, 1, 4);
    putLE(value, 20, algorithm, 4);
    return value;
}
