#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// A number as it lies on disk, in the byte order that its type names. It becomes a `T` when it is
/// read; made of bytes alone it needs no alignment, so that on-disk records can be written down as
/// structs without padding.
template <std::unsigned_integral T, std::endian order> class Stored {
public:
    constexpr Stored() = default;
    constexpr Stored(T value)
        : bytes_(std::bit_cast<Storage>(ordered(value)))
    {
    }
    constexpr operator T() const { return ordered(std::bit_cast<T>(bytes_)); }

private:
    using Storage = std::array<std::uint8_t, sizeof(T)>;

    static constexpr T ordered(T value)
    {
        if constexpr (order == std::endian::native)
            return value;
        auto storage = std::bit_cast<Storage>(value);
        for (std::size_t low = 0, high = storage.size() - 1; low < high; ++low, --high) {
            const auto byte = storage[low];
            storage[low] = storage[high];
            storage[high] = byte;
        }
        return std::bit_cast<T>(storage);
    }

    Storage bytes_ {};
};

using LE16 = Stored<std::uint16_t, std::endian::little>;
using LE32 = Stored<std::uint32_t, std::endian::little>;
using LE64 = Stored<std::uint64_t, std::endian::little>;
using BE16 = Stored<std::uint16_t, std::endian::big>;
using BE32 = Stored<std::uint32_t, std::endian::big>;
using BE64 = Stored<std::uint64_t, std::endian::big>;

/// A read-only view of bytes from a disk; it must not outlive them. Offsets count from its start.
/// Outside it every reader answers 0, empty or none, so that a damaged structure degrades and never
/// stops a scan.
class ByteView {
public:
    constexpr ByteView() = default;
    constexpr ByteView(std::span<const std::uint8_t> bytes)
        : bytes_(bytes)
    {
    }
    ByteView(const Bytes& bytes)
        : bytes_(bytes)
    {
    }
    template <std::size_t count>
    constexpr ByteView(const std::array<std::uint8_t, count>& bytes)
        : bytes_(bytes)
    {
    }

    std::size_t size() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }
    const std::uint8_t* data() const { return bytes_.data(); }
    std::span<const std::uint8_t> span() const { return bytes_; }

    std::uint8_t u8(std::int64_t at) const { return load<std::uint8_t>(at).value_or(0); }
    std::int8_t i8(std::int64_t at) const { return static_cast<std::int8_t>(u8(at)); }
    std::uint16_t u16le(std::int64_t at) const { return load<LE16>(at).value_or(LE16 {}); }
    std::uint32_t u32le(std::int64_t at) const { return load<LE32>(at).value_or(LE32 {}); }
    std::uint64_t u64le(std::int64_t at) const { return load<LE64>(at).value_or(LE64 {}); }
    std::uint16_t u16be(std::int64_t at) const { return load<BE16>(at).value_or(BE16 {}); }
    std::uint32_t u32be(std::int64_t at) const { return load<BE32>(at).value_or(BE32 {}); }
    std::uint64_t u64be(std::int64_t at) const { return load<BE64>(at).value_or(BE64 {}); }

    /// A little-endian number of `width` bytes, 1...8; 0 for any other width.
    std::uint64_t uintLE(std::int64_t at, int width) const;
    /// The same bytes in two's complement.
    std::int64_t intLE(std::int64_t at, int width) const;

    /// A `T` copied out of the bytes at `at`; none unless it lies wholly inside. `T` is a plain
    /// on-disk record.
    template <class T>
    requires(std::is_trivially_copyable_v<T> && alignof(T) == 1) std::optional<T> load(
        std::int64_t at)
    const
    {
        if (!holds(at, sizeof(T)))
            return std::nullopt;
        T value;
        std::memcpy(&value, bytes_.data() + at, sizeof(T));
        return value;
    }

    /// The bytes from `at` on, at most `length`, cut at the end of the view; empty when `at` lies
    /// outside or `length` is below 1. No bytes are copied.
    ByteView sub(std::int64_t at, std::int64_t length) const;

    /// The text of a fixed field: ends at the first zero byte, and every byte outside 32...126
    /// becomes "_".
    std::string ascii(std::int64_t at, std::int64_t length) const;

    /// Up to `chars` UTF-16 units as UTF-8. Broken surrogates become U+FFFD; zero units are kept.
    std::string utf16le(std::int64_t at, std::int64_t chars) const;
    std::string utf16be(std::int64_t at, std::int64_t chars) const;

    /// Whether the bytes at `at` are those of `pattern`; an empty pattern matches at any offset
    /// that is not negative.
    bool matches(ByteView pattern, std::int64_t at) const;
    bool matches(std::string_view text, std::int64_t at) const
    {
        if (text.empty())
            return at >= 0;
        return holds(at, text.size())
            && std::memcmp(bytes_.data() + at, text.data(), text.size()) == 0;
    }

    /// Whether no byte of the range, cut at the end of the view, differs from zero; true for an
    /// empty range.
    bool isAllZero(std::int64_t at, std::int64_t length) const;
    bool isAllZero(std::int64_t at = 0) const;

    /// The first position at or after `from` (a negative one counts as 0) where `pattern` starts;
    /// none for an empty one.
    std::optional<std::int64_t> firstIndex(ByteView pattern, std::int64_t from) const;

private:
    /// The one bounds check. It subtracts and never adds, so that no offset from a disk can make it
    /// overflow.
    bool holds(std::int64_t at, std::size_t count) const
    {
        return at >= 0 && count <= bytes_.size()
            && static_cast<std::uint64_t>(at) <= bytes_.size() - count;
    }

    template <class Unit> std::string utf16(std::int64_t at, std::int64_t chars) const;

    std::span<const std::uint8_t> bytes_;
};
