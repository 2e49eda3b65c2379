// Where lzfse is absent.

#include "VintrelCore/Foundation/Compression/Compression.h"

namespace Compression {

bool hasLZFSE() { return false; }

std::optional<std::size_t> unpackLZFSE(From /*from*/, To /*to*/) { return std::nullopt; }

} // namespace Compression
