#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The first two kilobytes of a volume, with just what the probe asks for. FAT volumes are sound
/// and empty when zeros follow; the others cannot be read any further.
Bytes volumeStart(FileSystemType type);

/// A disk in memory, on which partition tables are written. LBAs count in sectors of `sectorSize`.
class PartitionImage {
public:
    struct MBRSlot {
        std::uint8_t type = 0;
        std::uint32_t first = 0, count = 0; ///< in sectors
        std::uint8_t status = 0;
    };

    struct GPTSlot {
        Bytes type; ///< a GUID as stored; empty leaves the slot unused
        std::uint64_t first = 0, last = 0;
        std::u16string name = {};
    };

    struct GPTPlaces {
        std::uint64_t headerLBA = 1, tableLBA = 2;
        std::uint32_t claimedCount = 0,
                      entrySize = 128; ///< a count of 0: as many as there are slots
    };

    explicit PartitionImage(std::size_t size, std::size_t sectorSize = 512);

    PartitionImage& mbr(const std::vector<MBRSlot>& slots) { return ebr(0, slots); }
    /// A sector of MBR form at `lba`.
    PartitionImage& ebr(std::uint64_t lba, const std::vector<MBRSlot>& slots);
    PartitionImage& gpt(const std::vector<GPTSlot>& slots, GPTPlaces places);
    PartitionImage& gpt(const std::vector<GPTSlot>& slots) { return gpt(slots, {}); }
    /// What does not fit on the disk is left out.
    PartitionImage& put(std::uint64_t lba, const Bytes& bytes);
    PartitionImage& volume(std::uint64_t lba, FileSystemType type)
    {
        return put(lba, volumeStart(type));
    }

    std::unique_ptr<DiskSource> source(std::uint32_t sourceSectorSize = 512) const;

private:
    std::size_t sectorSize_;
    Bytes bytes_;
};

extern const Bytes basicDataGUID, linuxGUID;

/// Writes an unsigned number in little-endian order.
template <std::unsigned_integral T> void store(Bytes& bytes, std::size_t at, T value)
{
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes.at(at + i) = static_cast<std::uint8_t>(value >> 8 * i);
}
