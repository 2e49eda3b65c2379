#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/CRC32.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

// PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3.

namespace Content::Formats::ZIPRecords {

inline constexpr std::uint32_t localSignature = 0x0403'4B50;
inline constexpr std::uint32_t centralSignature = 0x0201'4B50;
inline constexpr std::uint32_t descriptorSignature = 0x0807'4B50;
inline constexpr std::uint32_t endSignature = 0x0605'4B50;
inline constexpr std::uint32_t zip64EndSignature = 0x0606'4B50;
inline constexpr std::uint32_t zip64LocatorSignature = 0x0706'4B50;
inline constexpr std::uint32_t inZip64 = 0xFFFF'FFFF;
inline constexpr std::uint16_t countInZip64 = 0xFFFF;
inline constexpr std::uint16_t maxNameLength = 4096; // longer ones no system can unpack
inline constexpr std::uint64_t maxZip64End = 1'048'576;

struct LocalHeader {
    LE32 signature;   //  0
    LE16 version;     //  4
    LE16 flags;       //  6
    LE16 method;      //  8
    LE32 time;        // 10  and date
    LE32 checksum;    // 14
    LE32 packedSize;  // 18
    LE32 size;        // 22
    LE16 nameLength;  // 26
    LE16 extraLength; // 28
};
static_assert(sizeof(LocalHeader) == 30 && offsetof(LocalHeader, nameLength) == 26);

struct CentralHeader {
    LE32 signature;                      //  0
    std::array<std::uint8_t, 8> unused;  //  4
    LE32 time;                           // 12  and date
    LE32 checksum;                       // 16
    LE32 packedSize;                     // 20
    LE32 size;                           // 24
    LE16 nameLength;                     // 28
    LE16 extraLength;                    // 30
    LE16 commentLength;                  // 32
    std::array<std::uint8_t, 8> unused2; // 34
    LE32 localOffset;                    // 42  from the start of the archive
};
static_assert(sizeof(CentralHeader) == 46 && offsetof(CentralHeader, commentLength) == 32);

struct EndRecord {
    LE32 signature;       //  0
    LE16 disk, firstDisk; //  4
    LE16 countHere;       //  8
    LE16 count;           // 10  of entries
    LE32 directorySize;   // 12
    LE32 directoryOffset; // 16  from the start of the archive
    LE16 commentLength;   // 20
};
static_assert(sizeof(EndRecord) == 22 && offsetof(EndRecord, commentLength) == 20);

struct Zip64EndRecord {
    LE32 signature;                      //  0
    LE64 length;                         //  4  of what follows this field
    std::array<std::uint8_t, 20> unused; // 12
    LE64 count;                          // 32  of entries
    LE64 directorySize;                  // 40
    LE64 directoryOffset;                // 48  from the start of the archive
};
static_assert(sizeof(Zip64EndRecord) == 56 && offsetof(Zip64EndRecord, count) == 32);
inline constexpr std::uint64_t zip64LocatorSize = 20;

enum Flag : std::uint16_t {
    isEncrypted = 1,
    hasDescriptor = 8, ///< checksum and sizes stand behind the data
};
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
