#pragma once

#include <cstdint>

/// A half-open range of bytes on the source.
struct ByteRange {
    std::uint64_t start = 0;
    std::uint64_t end = 0;

    bool operator==(const ByteRange&) const = default;
};
