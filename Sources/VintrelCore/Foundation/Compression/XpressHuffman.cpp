#include "VintrelCore/Foundation/Compression/Huffman.h"
#include "VintrelCore/Foundation/Compression/WindowsFormats.h"

namespace Compression {

namespace {

constexpr std::size_t tableSize = 256; ///< two code lengths in each byte
constexpr std::size_t maxSize = 65'536;
constexpr std::uint16_t literals = 256;
constexpr std::size_t leastMatch = 3;
constexpr int lengthBits = 4;               ///< of a match
constexpr std::uint32_t longLength = 15;    ///< goes on in a byte
constexpr std::uint32_t longerLength = 255; ///< and in a word

std::optional<HuffmanCode> readCode(ByteView packed)
{
    std::array<std::uint8_t, 2 * tableSize> lengths {};
    for (std::size_t at = 0; at < tableSize; ++at) {
        const auto pair = packed.u8(static_cast<std::int64_t>(at));
        lengths.at(2 * at) = pair & 0xF;
        lengths.at(2 * at + 1) = pair >> 4;
    }
    return HuffmanCode::from(lengths);
}

/// The length of a match less the least one; none for one that is too short for its form.
std::optional<std::size_t> takeLength(WordBits& bits, std::uint16_t match)
{
    std::uint32_t length = match & ((1U << lengthBits) - 1);
    if (length < longLength)
        return length;
    length = bits.takeByte();
    if (length < longerLength)
        return length + longLength;
    length = bits.takeWord();
    return length >= longLength ? std::optional<std::size_t>(length) : std::nullopt;
}

/// Repeats what a match points to. False when it points before the beginning.
bool appendMatch(Bytes& content, WordBits& bits, std::uint16_t match, std::size_t size)
{
    const auto length = takeLength(bits, match);
    const int offsetBits = match >> lengthBits;
    const std::size_t distance = (std::size_t { 1 } << offsetBits) + bits.take(offsetBits);
    if (!length || distance > content.size() || *length + leastMatch > size - content.size())
        return false;
    for (std::size_t i = 0; i < *length + leastMatch; ++i)
        content.push_back(content[content.size() - distance]);
    return true;
}

} // namespace

std::optional<Bytes> unpackXpressHuffman(ByteView packed, std::size_t size)
{
    const auto code = readCode(packed);
    if (!code || !code->isComplete() || packed.size() < tableSize || size > maxSize)
        return std::nullopt;
    WordBits bits(packed.sub(tableSize, static_cast<std::int64_t>(packed.size())));
    Bytes content;
    content.reserve(size);
    while (content.size() < size) {
        const auto symbol = code->decode(bits);
        if (!symbol || bits.isOver())
            return std::nullopt;
        if (*symbol < literals)
            content.push_back(static_cast<std::uint8_t>(*symbol));
        else if (!appendMatch(content, bits, static_cast<std::uint16_t>(*symbol - literals), size))
            return std::nullopt;
    }
    return content;
}

} // namespace Compression
