#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/// Files that macOS compressed, on HFS+ and APFS alike: the attribute "com.apple.decmpfs" has a
/// header and, of small files, the content; else the resource fork has it, in blocks. The header is
/// the decmpfs_disk_header of macOS. Pure: any thread may call.
namespace Decmpfs {

enum class Method : std::uint8_t { stored, zlib, lzvn, lzfse };

struct Header {
    std::uint64_t size = 0; ///< of the content, in bytes
    Method method {};
    bool isInFork = false;

    bool operator==(const Header&) const = default;
};

/// The bytes of the attribute before the content.
constexpr std::int64_t headerSize = 16;
/// Each block of the resource fork has so many bytes of the content; the last one may have fewer.
constexpr std::uint64_t blockSize = 65'536;

/// The content's size as the attribute says, whatever packed it; none when it is no such attribute.
std::optional<std::uint64_t> sizeIn(ByteView attribute);
/// None when it is no such attribute, or names a method that is not known.
std::optional<Header> decode(ByteView attribute);

/// Where a packed block lies in the resource fork, in bytes.
struct Block {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// Gives bytes of the fork; fewer where it ends.
using ReadFork = std::function<Bytes(std::uint64_t offset, std::uint64_t length)>;

/// The blocks of the content in its order, as the table in the fork has them. As many as the fork
/// can hold and the content needs; empty when there is no usable table.
std::vector<Block> blocksOf(const Header& header, std::uint64_t forkSize, const ReadFork& read);

/// Whether this build can unpack it.
bool canUnpack(Method method);
/// The content of a block, or of a whole small file, that is `size` bytes long. None when it is
/// damaged or cannot be unpacked.
std::optional<Bytes> unpack(Method method, ByteView packed, std::uint64_t size);

} // namespace Decmpfs
