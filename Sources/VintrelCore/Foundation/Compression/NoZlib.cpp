// Where zlib is absent.

#include "VintrelCore/Foundation/Compression/Compression.h"

namespace Compression {

bool hasZlib() { return false; }

std::optional<std::size_t> unpackZlib(From /*from*/, To /*to*/) { return std::nullopt; }

} // namespace Compression
