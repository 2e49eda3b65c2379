#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

/// The checksums of ext4 ("Checksums" in its documentation), which are kept as the register stands:
/// it is not turned over at the end.
namespace ExtChecksums {

constexpr std::uint32_t start = 0xFFFF'FFFF;

/// CRC-32C over further bytes.
std::uint32_t crc32c(std::uint32_t state, ByteView bytes);
/// The same over a number as it lies on disk.
std::uint32_t crc32c(std::uint32_t state, LE32 number);
/// The state before these bytes that leads to `state` behind them.
std::uint32_t rewind32c(std::uint32_t state, ByteView bytes);

/// CRC-32 with its highest term in the highest bit, as commits of the journal have it ("Commit
/// Block", checksums of version 1).
std::uint32_t crc32(std::uint32_t state, ByteView bytes);

} // namespace ExtChecksums
