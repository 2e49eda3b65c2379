#pragma once

#include "VintrelCore/Content/Content.h"
#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

// What checkers read of a file whose stretches may be short.

namespace Content {

inline constexpr std::size_t readSize = 65'536; ///< of one stretch, in bytes

/// Fills `into` with what lies at `position`; false, and nothing useful, when not all of it is
/// there.
inline bool readInto(FileBytes& file, std::uint64_t position, std::span<std::uint8_t> into)
{
    if (position > file.size() || into.size() > file.size() - position)
        return false;
    for (std::size_t done = 0; done < into.size();) {
        const auto part = file.stretch(position + done, into.size() - done);
        if (part.empty())
            return false;
        const auto count = std::min(part.size(), into.size() - done);
        std::copy_n(part.data(), count, into.begin() + static_cast<std::ptrdiff_t>(done));
        done += count;
    }
    return true;
}

/// A record at `position`; none when not all of it is there.
template <class T>
requires(std::is_trivially_copyable_v<T> && alignof(T) == 1) std::optional<T> load(
    FileBytes& file, std::uint64_t position)
{
    std::array<std::uint8_t, sizeof(T)> bytes;
    if (!readInto(file, position, bytes))
        return std::nullopt;
    return ByteView(bytes).load<T>(0);
}

/// At most `count` bytes at `position`, fewer where not all of them are there.
inline Bytes bytesAt(FileBytes& file, std::uint64_t position, std::size_t count)
{
    if (position >= file.size())
        return {};
    Bytes bytes(static_cast<std::size_t>(std::min<std::uint64_t>(count, file.size() - position)));
    return readInto(file, position, bytes) ? bytes : Bytes {};
}

/// Whether `text` lies at `position`; false where not all of it is there.
inline bool isAt(FileBytes& file, std::uint64_t position, std::string_view text)
{
    const auto bytes = bytesAt(file, position, text.size());
    return ByteView(bytes).matches(text, 0);
}

} // namespace Content
