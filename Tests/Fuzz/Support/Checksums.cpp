#include "Tests/Fuzz/Support/Checksums.h"

#include "Tests/Images/DiskImage.h"
#include "VintrelCore/FileSystems/APFS/Objects.h"
#include "VintrelCore/Foundation/CRC32.h"

#include <algorithm>

namespace {

constexpr std::size_t sector = 512;

ByteView at(const Bytes& image, std::size_t offset, std::size_t count)
{
    return ByteView(image).sub(static_cast<std::int64_t>(offset), static_cast<std::int64_t>(count));
}

std::uint32_t crc(ByteView bytes)
{
    CRC32 sum;
    sum.add(bytes);
    return sum.value();
}

/// The table first, since its header sums that up too.
void renewGPT(Bytes& image)
{
    for (const auto header : { sector, std::max(image.size(), sector) - sector }) {
        const auto view = at(image, header, sector);
        const std::size_t length = view.u32le(12), table = view.u64le(72) % 0x10000 * sector;
        const std::size_t size
            = std::size_t { view.u32le(80) % 0x1000 } * (view.u32le(84) % 0x1000);
        if (view.ascii(0, 8) != "EFI PART" || length > sector || length < 92
            || table + size > image.size())
            continue;
        putLE(image, header + 88, crc(at(image, table, size)), 4);
        putLE(image, header + 16, 0, 4);
        putLE(image, header + 16, crc(at(image, header, length)), 4);
    }
}

/// The last bytes of each sector of a record of NTFS are a number that its array repeats.
void renewFixups(Bytes& image)
{
    for (std::size_t start = 0; start + sector <= image.size(); start += sector) {
        const auto record = at(image, start, sector);
        const auto magic = record.ascii(0, 4);
        const std::size_t array = record.u16le(4), count = record.u16le(6);
        if ((magic != "FILE" && magic != "INDX") || array > 500 || count > 9)
            continue;
        const auto number = record.u16le(static_cast<std::int64_t>(array));
        for (std::size_t i = 1; i < count && start + i * sector <= image.size(); ++i)
            putLE(image, start + i * sector - 2, number, 2);
    }
}

std::uint32_t rotated(std::uint32_t sum, std::uint8_t byte, std::uint32_t highest)
{
    return ((sum & 1) != 0 ? highest : 0) + (sum >> 1) + byte;
}

/// Of the boot region, and of each set of entries, deleted ones as they were before.
void renewExFAT(Bytes& image)
{
    if (image.size() >= 12 * sector && at(image, 3, 8).ascii(0, 5) == "EXFAT") {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < 11 * sector; ++i)
            if (i != 106 && i != 107 && i != 112)
                sum = rotated(sum, image[i], 0x8000'0000);
        for (std::size_t i = 11 * sector; i < 12 * sector; i += 4)
            putLE(image, i, sum, 4);
    }
    for (std::size_t start = 0; start + 96 <= image.size(); start += 32) {
        const std::size_t size = (image[start + 1] + 1U) * 32;
        if ((image[start] | 0x80) != 0x85 || (image[start + 32] | 0x80) != 0xC0
            || start + size > image.size() || image[start + 1] > 18)
            continue;
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < size; ++i)
            if (i != 2 && i != 3)
                sum = rotated(
                    sum & 0xFFFF, i % 32 == 0 ? image[start + i] | 0x80 : image[start + i], 0x8000);
        putLE(image, start + 2, sum & 0xFFFF, 2);
    }
}

/// Of every block that has the head of an object.
void renewAPFS(Bytes& image)
{
    constexpr std::size_t block = 4096;
    for (std::size_t start = 0; start + block <= image.size(); start += block) {
        const auto object = at(image, start, block);
        const auto kind = object.u32le(24) & 0x0FFF'FFFF;
        if (object.u64le(0) != 0 && kind != 0 && kind < 0x30)
            putLE(image, start, APFSParser::fletcher64(object), 8);
    }
}

} // namespace

void Checksums::renew(Bytes& image)
{
    renewGPT(image);
    renewFixups(image);
    renewExFAT(image);
    renewAPFS(image);
}
