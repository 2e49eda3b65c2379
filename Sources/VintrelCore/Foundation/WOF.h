#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/// Files that Windows compressed one by one ("compact /exe"): the file is a reparse point, and a
/// named stream has its content in chunks, behind a table of their ends ([MS-FSCC],
/// FILE_PROVIDER_EXTERNAL_INFO). Pure: any thread may call.
namespace WOF {

enum class Method : std::uint8_t { xpress4K, lzx, xpress8K, xpress16K };

/// The stream that has the content.
inline constexpr const char* streamName = "WofCompressedData";
/// How many bytes of a reparse point tell the method.
inline constexpr std::size_t reparseSize = 28;

/// The method that a whole reparse point names; none when it is another kind of file, or the
/// content lies in an image of its own.
std::optional<Method> methodIn(ByteView reparsePoint);

/// Each chunk has so many bytes of the content; the last one may have fewer.
std::uint64_t chunkSize(Method method);

/// Where a packed chunk lies in the stream, in bytes.
struct Chunk {
    std::uint64_t offset = 0;
    std::uint64_t length = 0; ///< 0: not possible
};

/// Gives bytes of the stream; fewer where it ends.
using ReadStream = std::function<Bytes(std::uint64_t offset, std::uint64_t length)>;

/// The chunks of a content of `size` bytes, in its order. Empty when the stream, which has
/// `streamSize` bytes, is too short for their table.
std::vector<Chunk> chunksOf(
    Method method, std::uint64_t size, std::uint64_t streamSize, const ReadStream& read);

/// The content of a chunk, which is `size` bytes long. None when it is damaged.
std::optional<Bytes> unpack(Method method, ByteView packed, std::uint64_t size);

} // namespace WOF
