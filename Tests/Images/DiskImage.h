#pragma once

#include "Tests/Support/TestSource.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <memory>
#include <span>

/// Writes a number of `width` bytes, the least significant one first.
inline void putLE(Bytes& bytes, std::uint64_t at, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        bytes.at(at++) = static_cast<std::uint8_t>(value >> 8 * i);
}

/// Writes a number of `width` bytes, the most significant one first.
inline void putBE(Bytes& bytes, std::uint64_t at, std::uint64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i)
        bytes.at(at++) = static_cast<std::uint8_t>(value >> 8 * i);
}

/// A volume in memory, to be built and damaged.
class DiskImage {
public:
    /// Writes into the volume, which does not grow.
    void write(std::uint64_t offset, std::span<const std::uint8_t> content)
    {
        for (const auto byte : content)
            bytes_.at(offset++) = byte;
    }
    Bytes& bytes() { return bytes_; }
    const Bytes& bytes() const { return bytes_; }
    std::unique_ptr<DiskSource> source() const { return makeSource(bytes_); }

protected:
    Bytes bytes_;
};
