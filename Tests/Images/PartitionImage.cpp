#include "Tests/Images/PartitionImage.h"

#include "Tests/Support/TestSource.h"

#include <algorithm>
#include <stdexcept>

namespace {

void storeText(Bytes& bytes, std::size_t at, std::string_view text)
{
    std::ranges::copy(text, bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

/// A boot sector with one reserved sector, one FAT, and a root directory of one sector where the kind has one.
void storeFAT(Bytes& bytes, FileSystemType type)
{
    const bool isFAT32 = type == FileSystemType::fat32;
    const std::uint32_t clusters = isFAT32 ? 65525 : type == FileSystemType::fat16 ? 4085 : 16;
    const std::uint32_t fatSectors = isFAT32 ? 512 : type == FileSystemType::fat16 ? 16 : 1;
    storeText(bytes, 0, "\xEB\x3C\x90MKFS.FAT");
    store<std::uint16_t>(bytes, 11, 512);
    store<std::uint8_t>(bytes, 13, 1);
    store<std::uint16_t>(bytes, 14, 1);
    store<std::uint8_t>(bytes, 16, 1);
    store<std::uint16_t>(bytes, 17, isFAT32 ? 0 : 16);
    store<std::uint32_t>(bytes, 32, 1 + fatSectors + (isFAT32 ? 0 : 1) + clusters);
    if (isFAT32) {
        store<std::uint32_t>(bytes, 36, fatSectors);
        store<std::uint32_t>(bytes, 44, 2);
    } else {
        store<std::uint16_t>(bytes, 22, static_cast<std::uint16_t>(fatSectors));
    }
    storeText(bytes, 510, "\x55\xAA");
}

/// The 16 bytes of a GUID's text: the first three groups are stored backwards.
Bytes guidBytes(std::string_view text)
{
    constexpr std::size_t digitPairs[] = { 6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34 };
    Bytes bytes;
    for (const auto at : digitPairs)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::string(text.substr(at, 2)), nullptr, 16)));
    return bytes;
}

} // namespace

Bytes volumeStart(FileSystemType type)
{
    Bytes bytes(2048);
    switch (type) {
    case FileSystemType::fat12:
    case FileSystemType::fat16:
    case FileSystemType::fat32:
        storeFAT(bytes, type);
        break;
    case FileSystemType::exfat:
        storeText(bytes, 3, "EXFAT   ");
        bytes[108] = 9;
        break;
    case FileSystemType::ntfs:
        storeText(bytes, 3, "NTFS    ");
        store<std::uint16_t>(bytes, 11, 512);
        break;
    case FileSystemType::hfsplus:
        storeText(bytes, 1024, std::string_view("H+\0\4", 4));
        bytes[1024 + 42] = 0x10; // blocks of 4096 bytes, big-endian as everything here
        bytes[1024 + 47] = 1;
        break;
    case FileSystemType::apfs:
        storeText(bytes, 32, "NXSB");
        break;
    case FileSystemType::ext:
        store<std::uint16_t>(bytes, 1024 + 56, 0xEF53);
        break;
    default:
        throw std::invalid_argument("no file system");
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
    storeText(sector, 510, "\x55\xAA");
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
    Bytes header(92);
    storeText(header, 0, "EFI PART");
    store(header, 72, places.tableLBA);
    store(header, 80, places.claimedCount != 0 ? places.claimedCount : static_cast<std::uint32_t>(slots.size()));
    store(header, 84, places.entrySize);

    Bytes table(slots.size() * places.entrySize);
    for (std::size_t at = 0; const auto& slot : slots) {
        if (!slot.type.empty())
            std::ranges::copy(guidBytes(slot.type), table.begin() + static_cast<std::ptrdiff_t>(at));
        store(table, at + 32, slot.first);
        store(table, at + 40, slot.last);
        for (std::size_t unit = 0; unit < slot.name.size(); ++unit)
            store(table, at + 56 + 2 * unit, static_cast<std::uint16_t>(slot.name[unit]));
        at += places.entrySize;
    }
    return put(places.headerLBA, header).put(places.tableLBA, table);
}

PartitionImage& PartitionImage::put(std::uint64_t lba, std::span<const std::uint8_t> bytes)
{
    const std::size_t at = std::min(static_cast<std::size_t>(lba) * sectorSize_, bytes_.size());
    std::ranges::copy(
        bytes.first(std::min(bytes.size(), bytes_.size() - at)), bytes_.begin() + static_cast<std::ptrdiff_t>(at));
    return *this;
}

std::unique_ptr<DiskSource> PartitionImage::source(std::uint32_t sourceSectorSize) const
{
    return makeSource(bytes_, sourceSectorSize);
}
