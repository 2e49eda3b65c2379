#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// Unpacking by libraries that the system may have. One source file each speaks to a library, and
/// another one stands in where it is absent. Pure: any thread may call.
namespace Compression {

using From = std::span<const std::uint8_t>;
using To = std::span<std::uint8_t>;

/// Whether the program was built with zlib.
bool hasZlib();
/// Unpacks a zlib stream, which must end, and returns its length; none when it is damaged, or
/// longer than `to`.
std::optional<std::size_t> unpackZlib(From from, To to);

/// Whether the program was built with lzfse.
bool hasLZFSE();
/// The same with an LZFSE stream; what is longer than `to` is cut.
std::optional<std::size_t> unpackLZFSE(From from, To to);

} // namespace Compression
