#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

/// Sector 0 of a FAT volume, with its BIOS parameter block, as in "Microsoft FAT32 File System
/// Specification" 1.03 (fatgen103), "Boot Sector and BPB". Everything is little-endian.
struct FATBootSector {
    /// The fields from 36 on, on FAT12 and FAT16.
    struct FAT16Fields {
        std::uint8_t driveNumber;              // 36
        std::uint8_t reserved;                 // 37
        std::uint8_t extendedSignature;        // 38  29: the next three are there
        LE32 volumeID;                         // 39
        std::array<std::uint8_t, 11> label;    // 43
        std::array<std::uint8_t, 8> typeName;  // 54  says nothing of the type
        std::array<std::uint8_t, 448> program; // 62
    };

    /// The fields from 36 on, on FAT32.
    struct FAT32Fields {
        LE32 sectorsPerFAT;                    // 36
        LE16 flags, version;                   // 40, 42
        LE32 rootCluster;                      // 44  low 28 bits
        LE16 infoSector;                       // 48
        LE16 backupSector;                     // 50  of the boot sector; 0: there is none
        std::array<std::uint8_t, 12> reserved; // 52
        std::uint8_t driveNumber;              // 64
        std::uint8_t reserved1;                // 65
        std::uint8_t extendedSignature;        // 66
        LE32 volumeID;                         // 67
        std::array<std::uint8_t, 11> label;    // 71
        std::array<std::uint8_t, 8> typeName;  // 82
        std::array<std::uint8_t, 420> program; // 90
    };

    std::array<std::uint8_t, 3> jump;        //   0  EB or E9
    std::array<std::uint8_t, 8> oemName;     //   3
    LE16 bytesPerSector;                     //  11  512, 1024, 2048 or 4096
    std::uint8_t sectorsPerCluster;          //  13  a power of two
    LE16 reservedSectors;                    //  14  before the first FAT
    std::uint8_t fatCount;                   //  16
    LE16 rootEntries;                        //  17  of the fixed root directory; 0 on FAT32
    LE16 totalSectors16;                     //  19  0: see totalSectors32
    std::uint8_t media;                      //  21
    LE16 sectorsPerFAT16;                    //  22  0: see FAT32Fields
    LE16 sectorsPerTrack, headCount;         //  24, 26
    LE32 hiddenSectors;                      //  28
    LE32 totalSectors32;                     //  32
    std::array<std::uint8_t, 474> remainder; //  36  FAT16Fields or FAT32Fields
    std::array<std::uint8_t, 2> signature;   // 510  55 AA

    /// Takes the sector from the first byte on; what lies beyond the end of a shorter view is 0.
    static FATBootSector from(ByteView head);

    FAT16Fields fat16() const { return *ByteView(remainder).load<FAT16Fields>(0); }
    FAT32Fields fat32() const { return *ByteView(remainder).load<FAT32Fields>(0); }

    /// fat12, fat16 or fat32; none where a FAT volume cannot begin.
    std::optional<FileSystemType> type() const;

    // Sizes and places in sectors, counted from the volume's start. The last two are for sectors
    // that have a type.
    std::uint64_t totalSectors() const;
    std::uint64_t sectorsPerFAT() const; ///< of one FAT
    std::uint64_t rootDirSector() const; ///< of the fixed root directory
    std::uint64_t dataSector() const;    ///< of the first cluster
};
static_assert(sizeof(FATBootSector) == 512 && offsetof(FATBootSector, media) == 21
    && offsetof(FATBootSector, remainder) == 36 && offsetof(FATBootSector, signature) == 510);
static_assert(sizeof(FATBootSector::FAT16Fields) == 510 - 36
    && offsetof(FATBootSector::FAT16Fields, label) == 43 - 36);
static_assert(sizeof(FATBootSector::FAT32Fields) == 510 - 36
    && offsetof(FATBootSector::FAT32Fields, rootCluster) == 44 - 36
    && offsetof(FATBootSector::FAT32Fields, backupSector) == 50 - 36
    && offsetof(FATBootSector::FAT32Fields, label) == 71 - 36);
