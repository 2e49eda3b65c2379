#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// The records of an archive. PKWARE "APPNOTE.TXT - .ZIP File Format Specification" 6.3.
namespace ZIPLayout {

inline constexpr std::uint32_t localSignature = 0x0403'4B50;
inline constexpr std::uint32_t centralSignature = 0x0201'4B50;
inline constexpr std::uint32_t descriptorSignature = 0x0807'4B50;
inline constexpr std::uint32_t endSignature = 0x0605'4B50;
inline constexpr std::uint32_t zip64EndSignature = 0x0606'4B50;
inline constexpr std::uint32_t zip64LocatorSignature = 0x0706'4B50;
inline constexpr std::uint32_t inZip64 = 0xFFFF'FFFF;
inline constexpr std::uint16_t countInZip64 = 0xFFFF;
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

    std::uint64_t dataOffset() const { return sizeof(LocalHeader) + nameLength + extraLength; }
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

    /// Of the header with what follows it.
    std::uint64_t fullLength() const
    {
        return sizeof(CentralHeader) + nameLength + extraLength + commentLength;
    }
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

/// Archives beyond 4 GB have a second end record with wider fields, and so have those whose writer
/// did not know how large they would become. It lies in front of its locator, and that in front of
/// the end record.
struct Zip64EndRecord {
    LE32 signature;                      //  0
    LE64 length;                         //  4  of what follows this field
    std::array<std::uint8_t, 20> unused; // 12
    LE64 count;                          // 32  of entries
    LE64 directorySize;                  // 40
    LE64 directoryOffset;                // 48  from the start of the archive
};
static_assert(sizeof(Zip64EndRecord) == 56 && offsetof(Zip64EndRecord, count) == 32);

struct Zip64Locator {
    LE32 signature;    //  0
    LE32 disk;         //  4
    LE64 recordOffset; //  8  from the start of the archive
    LE32 disks;        // 16
};
static_assert(sizeof(Zip64Locator) == 20 && offsetof(Zip64Locator, recordOffset) == 8);

enum Flag : std::uint16_t {
    isEncrypted = 1,
    hasDescriptor = 8, ///< checksum and sizes stand behind the data
};

} // namespace ZIPLayout
