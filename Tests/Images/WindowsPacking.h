#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <functional>
#include <vector>

/// Packs as Windows does, with fixed codes: enough to be unpacked.
namespace WindowsPacking {

/// LZ77 with Huffman codes.
Bytes xpress(const Bytes& content);
/// LZX, in one block each of the three kinds that packs, that aligns low bits of offsets, and that
/// stores.
Bytes lzx(const Bytes& content);

/// The stream of a file that is packed in chunks of so many bytes, with its table in front.
Bytes stream(const Bytes& content, std::size_t chunkSize,
    const std::function<Bytes(const Bytes& chunk)>& pack);
/// The value of the reparse point of such a file.
Bytes reparsePoint(std::uint32_t algorithm, std::uint32_t provider = 2);

} // namespace WindowsPacking
