#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstddef>

namespace FileReader {

/// Decompresses one compression unit of NTFS to exactly `outputSize` bytes; what is missing or
/// corrupt is zeros. The format is LZNT1 of [MS-XCA], section 2.5.
Bytes lznt1Decompress(ByteView input, std::size_t outputSize);

} // namespace FileReader
