#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileNode.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

class DiskSource;

/// Turns a node's data into the file's bytes, whatever file system it came from. Never fails:
/// unreadable bytes are zeros and are counted, and what is missing at the end is zeros too.
namespace FileReader {

/// Content that is kept somewhere: of a file, or of what belongs to one.
struct Content {
    const FileData& data;
    std::uint64_t size = 0; ///< in bytes
};

inline Content contentOf(const FileNode& node) { return { node.data, node.size }; }

/// A piece of a file, in file order: bytes, or a hole.
struct Piece {
    std::span<const std::uint8_t> bytes; ///< valid during the call only; empty for a hole
    /// How many zeros the hole stands for: those of a sparse run, of what lies past the end of the
    /// source, or of an end that no extent holds. They are known without reading, and better left
    /// out of a file that can be sparse.
    std::uint64_t holeLength = 0;

    std::uint64_t size() const { return bytes.size() + holeLength; }
};

/// Takes a piece; false ends the stream.
using Body = std::function<bool(const Piece&)>;

/// Hands the first min(`limit`, size) bytes of the content to `body`, in pieces of at most
/// `chunkSize` bytes (compressed files: one compression unit). Resident data is not padded to the
/// size, and a file without known data gives no piece. Returns the unreadable bytes.
std::uint64_t stream(const Content& content, DiskSource& source, std::size_t chunkSize,
    std::optional<std::uint64_t> limit, const Body& body);
inline std::uint64_t stream(const FileNode& node, DiskSource& source, std::size_t chunkSize,
    std::optional<std::uint64_t> limit, const Body& body)
{
    return stream(contentOf(node), source, chunkSize, limit, body);
}

/// How many bytes stream() hands on when it gets everything right, holes among them.
std::uint64_t streamedLength(const Content& content);

/// How many of these lie on the source for certain, so that no destination can leave them out.
std::uint64_t storedLength(const Content& content, const DiskSource& source);

/// The first min(`max`, size) bytes of the file.
Bytes readPrefix(const FileNode& node, DiskSource& source, std::size_t max);

} // namespace FileReader
