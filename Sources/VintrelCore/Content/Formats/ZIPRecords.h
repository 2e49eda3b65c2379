#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/CRC32.h"
#include "VintrelCore/Foundation/ZIPLayout.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>

// PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3.

namespace Content::Formats::ZIPRecords {

using namespace ZIPLayout;

inline constexpr std::uint16_t maxNameLength = 4096; // longer ones no system can unpack

enum Method : std::uint16_t { stored = 0, deflated = 8 };

inline bool isKnownMethod(std::uint16_t method)
{
    constexpr std::uint16_t lastOfPKWARE = 20;
    constexpr std::uint16_t firstOfLater = 93;
    constexpr std::uint16_t last = 99;
    return method <= lastOfPKWARE || (method >= firstOfLater && method <= last);
}

/// What both headers of an entry say of it.
struct Entry {
    std::uint64_t offset = 0; ///< of its local header
    std::uint32_t checksum = 0;
    std::uint64_t packedSize = 0;
    std::uint64_t size = 0;
    std::uint32_t nameChecksum = 0;

    /// A number that other entries hardly have.
    std::uint64_t digest() const
    {
        std::uint64_t digest = nameChecksum;
        for (const std::uint64_t value : { offset, std::uint64_t { checksum }, packedSize, size }) {
            constexpr std::uint64_t multiplier = 0x9E37'79B9'7F4A'7C15; // odd, its bits are mixed
            digest = (digest ^ value) * multiplier;
            digest ^= digest >> 29;
        }
        return digest;
    }
};

/// Reads the fields that are too narrow in a header from its extra fields: those that are set to
/// `inZip64`, in the order in which they are given.
inline void widen(ByteView extra, std::initializer_list<std::uint64_t*> fields)
{
    constexpr std::uint16_t zip64Id = 1;
    for (std::int64_t at = 0; at + 4 <= static_cast<std::int64_t>(extra.size());
         at += 4 + extra.u16le(at + 2)) {
        if (extra.u16le(at) != zip64Id)
            continue;
        const auto values = extra.sub(at + 4, extra.u16le(at + 2));
        std::int64_t next = 0;
        for (auto* const field : fields) {
            if (*field != inZip64)
                continue;
            *field = values.u64le(next);
            next += 8;
        }
        return;
    }
}

inline std::uint32_t checksumOf(ByteView bytes)
{
    CRC32 crc;
    crc.add(bytes);
    return crc.value();
}

/// Behind an entry's data, where its header did not know them yet: checksum and sizes.
struct Descriptor {
    std::uint64_t length = 0; ///< its own; 0 where none lies

    /// Writers differ in whether they sign it and how wide the sizes are, so that only the form
    /// that agrees with the data can be it.
    static Descriptor matching(ByteView bytes, const Entry& entry)
    {
        for (const std::int64_t start : { 4, 0 }) {
            if ((start == 4 && bytes.u32le(0) != descriptorSignature)
                || bytes.u32le(start) != entry.checksum)
                continue;
            const auto sizes = start + 4;
            if (bytes.u32le(sizes) == entry.packedSize && bytes.u32le(sizes + 4) == entry.size)
                return { static_cast<std::uint64_t>(sizes) + 8 };
            if (bytes.u64le(sizes) == entry.packedSize && bytes.u64le(sizes + 8) == entry.size)
                return { static_cast<std::uint64_t>(sizes) + 16 };
        }
        return {};
    }
    static constexpr std::size_t maxLength = 24;
};

} // namespace Content::Formats::ZIPRecords
