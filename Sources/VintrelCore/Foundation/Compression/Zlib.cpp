#include "VintrelCore/Foundation/Compression/Compression.h"

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

} // namespace Compression
