#include "VintrelCore/Foundation/Compression/Compression.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

#include <algorithm>
#include <limits>
#include <zlib.h>

namespace Compression {

bool hasZlib() { return true; }

std::optional<std::size_t> unpackZlib(From from, To to)
{
    auto length = static_cast<uLongf>(to.size());
    if (uncompress(to.data(), &length, from.data(), static_cast<uLong>(from.size())) != Z_OK)
        return std::nullopt;
    return static_cast<std::size_t>(length);
}

struct Inflater::Stream {
    z_stream zlib {};
    bool isUsable = false; ///< false where memory ran out

    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream()
    {
        if (isUsable)
            inflateEnd(&zlib);
    }
};

namespace {

/// How zlib is told what lies around a stream.
int windowBits(Inflater::Wrapping wrapping)
{
    constexpr int gzipOnly = 16;
    switch (wrapping) {
    case Inflater::Wrapping::raw:
        return -MAX_WBITS;
    case Inflater::Wrapping::gzip:
        return MAX_WBITS + gzipOnly;
    default:
        return MAX_WBITS;
    }
}

} // namespace

Inflater::Inflater(Wrapping wrapping)
    : stream_(std::make_unique<Stream>())
{
    stream_->isUsable = inflateInit2(&stream_->zlib, windowBits(wrapping)) == Z_OK;
}

Inflater::Inflater(const Inflater& other)
    : stream_(std::make_unique<Stream>())
{
    stream_->isUsable
        = other.stream_->isUsable && inflateCopy(&stream_->zlib, &other.stream_->zlib) == Z_OK;
}

Inflater::~Inflater() = default;

Inflater::Progress Inflater::unpack(From from, To to)
{
    auto& zlib = stream_->zlib;
    if (!stream_->isUsable)
        return { 0, 0, State::damaged };
    constexpr std::size_t maxAtOnce = std::numeric_limits<uInt>::max();
    const auto available = static_cast<uInt>(std::min(from.size(), maxAtOnce));
    const auto room = static_cast<uInt>(std::min(to.size(), maxAtOnce));
    zlib.next_in = const_cast<Bytef*>(from.data()); // which older versions only read, too
    zlib.avail_in = available;
    zlib.next_out = to.data();
    zlib.avail_out = room;
    const int result = inflate(&zlib, Z_NO_FLUSH);
    auto state = State::damaged;
    if (result == Z_STREAM_END)
        state = State::ended;
    else if (result == Z_OK || result == Z_BUF_ERROR)
        state = State::open;
    return { available - zlib.avail_in, room - zlib.avail_out, state };
}

} // namespace Compression
