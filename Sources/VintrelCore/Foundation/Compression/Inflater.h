#pragma once

#include "VintrelCore/Foundation/Compression/Compression.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Compression {

/// Unpacks a deflate stream that comes in pieces. A copy goes on from where the original stands,
/// each with about 40 KiB of its own. Without zlib every stream is damaged. Used by one thread.
class Inflater {
public:
    /// A zlib stream (RFC 1950) or member of a gzip file (RFC 1952) has a header, and behind the
    /// data a checksum that is checked; a raw stream (RFC 1951) has neither.
    enum class Wrapping : std::uint8_t { raw, zlib, gzip };
    enum class State : std::uint8_t {
        open,    ///< wants more input, or more room for output
        ended,   ///< the stream is whole
        damaged, ///< the last byte that was consumed, or one before it, is wrong
    };
    struct Progress {
        std::size_t consumed; ///< of the input, in bytes
        std::size_t produced; ///< of the output
        State state;
    };

    explicit Inflater(Wrapping wrapping);
    Inflater(const Inflater& other);
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater();

    /// Goes on until the input is consumed, `to` is full, or the stream is no longer open.
    Progress unpack(From from, To to);

private:
    struct Stream;
    std::unique_ptr<Stream> stream_;
};

} // namespace Compression
