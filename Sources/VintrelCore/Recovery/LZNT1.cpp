#include "VintrelCore/Recovery/LZNT1.h"

#include <algorithm>
#include <bit>

namespace FileReader {

namespace {

constexpr std::uint16_t compressedFlag = 0x8000; // of a chunk's header
constexpr std::uint16_t lengthMask = 0x0FFF;     // the length of the chunk's data, less one
constexpr std::size_t chunkSize = 4096;          // of the data that a chunk decompresses to
constexpr std::size_t leastMatch = 3;

/// How many bits of a token are its length. The further into the chunk, the more bits a distance
/// needs, and the fewer are left.
int lengthBitsAt(std::size_t produced)
{
    return produced <= 16 ? 12 : std::max(0, 16 - static_cast<int>(std::bit_width(produced - 1)));
}

/// Repeats what a token points to. False when it points before the chunk.
bool appendMatch(Bytes& output, std::size_t chunkStart, std::uint16_t token)
{
    const std::size_t produced = output.size() - chunkStart;
    const int lengthBits = lengthBitsAt(produced);
    const std::size_t distance = static_cast<std::size_t>(token >> lengthBits) + 1;
    const std::size_t length = (token & ((1u << lengthBits) - 1)) + leastMatch;
    if (distance > produced)
        return false;
    // One by one: a match may overlap what it produces itself.
    for (std::size_t i = 0; i < length; ++i)
        output.push_back(output[output.size() - distance]);
    return true;
}

/// Appends what a compressed chunk holds, until the output has `outputSize` bytes. False when the
/// chunk is corrupt.
bool appendChunk(Bytes& output, ByteView chunk, std::size_t outputSize)
{
    const std::size_t chunkStart = output.size();
    const auto end = static_cast<std::int64_t>(chunk.size());
    for (std::int64_t at = 0; at < end && output.size() < outputSize;) {
        std::uint8_t flags = chunk.u8(at++);
        for (int element = 0; element < 8 && at < end; ++element, flags >>= 1) {
            const bool isToken = (flags & 1) != 0;
            if (!isToken)
                output.push_back(chunk.u8(at));
            else if (at + 2 <= end && !appendMatch(output, chunkStart, chunk.u16le(at)))
                return false;
            at += isToken ? 2 : 1;
        }
    }
    return true;
}

} // namespace

Bytes lznt1Decompress(ByteView input, std::size_t outputSize)
{
    const auto inputSize = static_cast<std::int64_t>(input.size());
    Bytes output;
    output.reserve(outputSize + chunkSize);
    for (std::int64_t at = 0; at + 2 <= inputSize && output.size() < outputSize;) {
        const std::uint16_t header = input.u16le(at);
        if (header == 0)
            break;
        const auto chunk = input.sub(at + 2, (header & lengthMask) + 1);
        at += 2 + static_cast<std::int64_t>(chunk.size());
        if ((header & compressedFlag) == 0)
            output.insert(output.end(), chunk.span().begin(), chunk.span().end());
        else if (!appendChunk(output, chunk, outputSize))
            break;
    }
    output.resize(outputSize);
    return output;
}

} // namespace FileReader
