#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstddef>
#include <optional>

/// What Windows packs files and images of systems with, one source file each. Pure: any thread may
/// call.
namespace Compression {

/// Unpacks LZ77 with Huffman codes ([MS-XCA], LZ77+Huffman) of at most 64 KiB. None when it is
/// damaged, or does not make exactly `size` bytes.
std::optional<Bytes> unpackXpressHuffman(ByteView packed, std::size_t size);

/// Unpacks a chunk of at most 32 KiB that was packed by itself with LZX, as images of systems and
/// single files are ("Microsoft LZX Data Compression Format"; blocks are 32 KiB long unless they
/// say otherwise, and calls are translated in every chunk). None as above.
std::optional<Bytes> unpackLZX(ByteView packed, std::size_t size);

} // namespace Compression
