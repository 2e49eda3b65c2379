#include "Tests/Images/PartitionImage.h"

#include "Tests/Images/FATImage.h"
#include "Tests/Support/TestSource.h"

#include <algorithm>

const Bytes basicDataGUID { 0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44, 0x87, 0xC0, 0x68, 0xB6,
    0xB7, 0x26, 0x99, 0xC7 };
const Bytes linuxGUID { 0xAF, 0x3D, 0xC6, 0x0F, 0x83, 0x84, 0x72, 0x47, 0x8E, 0x79, 0x3D, 0x69,
    0xD8, 0x47, 0x7D, 0xE4 };

Bytes volumeStart(FileSystemType type)
{
    Bytes bytes(2048);
    const auto storeText = [&](std::size_t at, std::string_view text) {
        std::ranges::copy(text, bytes.begin() + static_cast<std::ptrdiff_t>(at));
    };
    switch (type) {
    case FileSystemType::exfat:
        storeText(3, "EXFAT   ");
        bytes[108] = 9;
        break;
    case FileSystemType::ntfs:
        storeText(3, "NTFS    ");
        store<std::uint16_t>(bytes, 11, 512);
        break;
    case FileSystemType::hfsplus:
        storeText(1024, std::string_view("H+\0\4", 4));
        bytes[1024 + 42] = 0x10; // blocks of 4096 bytes, big-endian as everything here
        bytes[1024 + 47] = 1;
        break;
    case FileSystemType::apfs:
        storeText(32, "NXSB");
        break;
    case FileSystemType::ext:
        store<std::uint16_t>(bytes, 1024 + 56, 0xEF53);
        break;
    default:
        bytes = FATImage({ .type = type }).bytes();
        bytes.resize(2048);
    }
    return bytes;
}

PartitionImage::PartitionImage(std::size_t size, std::size_t sectorSize)
    : sectorSize_(sectorSize)
    , bytes_(size)
{
}

PartitionImage& PartitionImage::ebr(std::uint64_t lba, const std::vector<MBRSlot>& slots)
{
    Bytes sector(512);
    store<std::uint16_t>(sector, 510, 0xAA55);
    for (std::size_t at = 446; const auto& slot : slots) {
        sector.at(at) = slot.status;
        sector.at(at + 4) = slot.type;
        store(sector, at + 8, slot.first);
        store(sector, at + 12, slot.count);
        at += 16;
    }
    return put(lba, sector);
}

PartitionImage& PartitionImage::gpt(const std::vector<GPTSlot>& slots, GPTPlaces places)
{
    Bytes header = bytesOf("EFI PART");
    header.resize(92);
    store(header, 72, places.tableLBA);
    store(header, 80,
        places.claimedCount != 0 ? places.claimedCount : static_cast<std::uint32_t>(slots.size()));
    store(header, 84, places.entrySize);

    Bytes table(slots.size() * places.entrySize);
    for (std::size_t at = 0; const auto& slot : slots) {
        std::ranges::copy(slot.type, table.begin() + static_cast<std::ptrdiff_t>(at));
        store(table, at + 32, slot.first);
        store(table, at + 40, slot.last);
        for (std::size_t unit = 0; unit < slot.name.size(); ++unit)
            store(table, at + 56 + 2 * unit, static_cast<std::uint16_t>(slot.name[unit]));
        at += places.entrySize;
    }
    return put(places.headerLBA, header).put(places.tableLBA, table);
}

PartitionImage& PartitionImage::put(std::uint64_t lba, const Bytes& bytes)
{
    const std::size_t at = std::min(static_cast<std::size_t>(lba) * sectorSize_, bytes_.size());
    std::copy_n(bytes.begin(), std::min(bytes.size(), bytes_.size() - at), bytes_.data() + at);
    return *this;
}

std::unique_ptr<DiskSource> PartitionImage::source(std::uint32_t sourceSectorSize) const
{
    return makeSource(bytes_, sourceSectorSize);
}
