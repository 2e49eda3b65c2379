#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

/// The register behind further bytes of the checksum with the polynomial of IBM, whose lowest term
/// is in the highest bit. It is not turned over at the end; where it starts is the format's matter.
std::uint16_t crc16(std::uint16_t state, ByteView bytes);
