#include "VintrelCore/Foundation/Compression/Compression.h"

#include <lzfse.h>

namespace Compression {

bool hasLZFSE() { return true; }

std::optional<std::size_t> unpackLZFSE(From from, To to)
{
    const auto length
        = lzfse_decode_buffer(to.data(), to.size(), from.data(), from.size(), nullptr);
    return length > 0 ? std::optional(length) : std::nullopt;
}

} // namespace Compression
