#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// Writing to open files, for those who must know what arrived.
namespace FileIO {

/// How far a write came, and why it ended there.
struct [[nodiscard]] Written {
    std::size_t count = 0; ///< bytes
    SystemError error;     ///< none when all was written; ENOSPC when the system took no more
};

/// Writes all bytes at byte `offset` of a file, over interruptions by signals.
Written writeAt(int descriptor, std::span<const std::uint8_t> bytes, std::uint64_t offset);

/// Writes all of a text where the file stands, over interruptions by signals.
Written write(int descriptor, std::string_view text);

} // namespace FileIO
