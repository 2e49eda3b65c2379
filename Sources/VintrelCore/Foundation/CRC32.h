#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

/// The checksum of ITU-T V.42 that ZIP, RAR, 7z and others use, over bytes that come in pieces.
class CRC32 {
public:
    void add(ByteView bytes);
    std::uint32_t value() const { return ~state_; }

private:
    std::uint32_t state_ = 0xFFFF'FFFF;
};
