// Where zlib is absent.

#include "VintrelCore/Foundation/Compression/Compression.h"
#include "VintrelCore/Foundation/Compression/Inflater.h"

namespace Compression {

bool hasZlib() { return false; }

std::optional<std::size_t> unpackZlib(From /*from*/, To /*to*/) { return std::nullopt; }

struct Inflater::Stream { };

Inflater::Inflater(Wrapping /*wrapping*/) { }
Inflater::Inflater(const Inflater& /*other*/) { }
Inflater::~Inflater() = default;

Inflater::Progress Inflater::unpack(From /*from*/, To /*to*/) { return { 0, 0, State::damaged }; }

} // namespace Compression
