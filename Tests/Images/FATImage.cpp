#include "Tests/Images/FATImage.h"

#include <stdexcept>

namespace {

std::uint8_t checksumOf(std::string_view name)
{
    unsigned sum = 0;
    for (const char character : name)
        sum = (((sum & 1) << 7 | sum >> 1) + static_cast<unsigned char>(character)) & 0xFF;
    return static_cast<std::uint8_t>(sum);
}

} // namespace

FATImage::FATImage(const Options& options)
    : type_(options.type)
    , clusterSize_(options.sectorsPerCluster * 512ULL)
{
    // FAT32 is told by its fields, however few its clusters.
    const std::uint64_t fewest = type_ == FileSystemType::fat16 ? 4085 : 400;
    const std::uint64_t clusters = options.clusters != 0 ? options.clusters : fewest;
    const std::uint64_t bits = type_ == FileSystemType::fat12 ? 12 : isFAT32() ? 32 : 16;
    fatSectors_ = ((clusters + 2) * bits / 8 + 512) / 512;
    const std::uint64_t dataSector
        = reservedSectors + 2 * fatSectors_ + (isFAT32() ? 0 : rootEntries * 32 / 512);
    dataOffset_ = dataSector * 512;
    const std::uint64_t totalSectors = dataSector + clusters * options.sectorsPerCluster;
    bytes_.resize(totalSectors * 512);

    write(0, bytesOf("\xEB\x58\x90"));
    putLE(bytes_, 11, 512, 2);
    putLE(bytes_, 13, options.sectorsPerCluster, 1);
    putLE(bytes_, 14, reservedSectors, 2);
    putLE(bytes_, 16, 2, 1); // FATs
    putLE(bytes_, 21, 0xF8, 1);
    putLE(bytes_, 32, totalSectors, 4);
    if (isFAT32()) {
        putLE(bytes_, 36, fatSectors_, 4);
        putLE(bytes_, 44, allocate(1), 4);
    } else {
        putLE(bytes_, 17, rootEntries, 2);
        putLE(bytes_, 22, fatSectors_, 2);
    }
    write(isFAT32() ? 71 : 43, bytesOf(options.label));
    putLE(bytes_, 510, 0xAA55, 2);
    setFAT(0, endMark());
    setFAT(1, endMark() | 7);
}

std::uint32_t FATImage::allocate(std::uint64_t count)
{
    const std::uint32_t first = nextCluster_;
    nextCluster_ += static_cast<std::uint32_t>(count);
    for (std::uint32_t cluster = first; cluster < nextCluster_; ++cluster)
        setFAT(cluster, cluster + 1 < nextCluster_ ? cluster + 1 : endMark());
    return first;
}

void FATImage::addEntry(std::uint32_t folder, const Entry& entry)
{
    if (entry.name.size() != 11)
        throw std::logic_error("a short name has eleven bytes: " + entry.name);
    std::size_t& number = entryCount_[folder];
    const std::size_t pieces = (entry.longName.size() + 12) / 13;
    for (std::size_t piece = pieces; piece > 0; --piece) {
        const std::uint64_t at = entryOffset(folder, number++);
        putLE(bytes_, at, piece | (piece == pieces ? 0x40 : 0), 1);
        putLE(bytes_, at + 11, 0x0F, 1);
        putLE(bytes_, at + 13, checksumOf(entry.name), 1);
        auto units = entry.longName.substr((piece - 1) * 13, 13) + u'\0';
        units.resize(14, u'\uFFFF');
        std::size_t unit = 0;
        for (const std::uint64_t place :
            { 1u, 3u, 5u, 7u, 9u, 14u, 16u, 18u, 20u, 22u, 24u, 28u, 30u })
            putLE(bytes_, at + place, units[unit++], 2);
    }
    const std::uint64_t at = entryOffset(folder, number++);
    write(at, bytesOf(entry.name));
    putLE(bytes_, at + 11, entry.attributes, 1);
    putLE(bytes_, at + 12, entry.caseFlags, 1);
    putLE(bytes_, at + 20, isFAT32() ? entry.cluster >> 16 : 0, 2);
    putLE(bytes_, at + 22, 0x5B436000, 4); // 3 October 2025, 12:00:00
    putLE(bytes_, at + 26, entry.cluster & 0xFFFF, 2);
    putLE(bytes_, at + 28, entry.size, 4);
}

std::uint32_t FATImage::addFile(std::uint32_t folder, Entry entry, const Bytes& content)
{
    entry.size = static_cast<std::uint32_t>(content.size());
    if (!content.empty()) {
        entry.cluster = allocate((content.size() + clusterSize_ - 1) / clusterSize_);
        write(offsetOf(entry.cluster), content);
    }
    addEntry(folder, entry);
    return entry.cluster;
}

std::uint32_t FATImage::addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters)
{
    entry.attributes = 0x10;
    entry.cluster = allocate(clusters);
    addEntry(folder, entry);
    addEntry(
        entry.cluster, { .name = ".          ", .attributes = 0x10, .cluster = entry.cluster });
    addEntry(entry.cluster, { .name = "..         ", .attributes = 0x10, .cluster = folder });
    return entry.cluster;
}

void FATImage::remove(std::uint32_t folder, std::string_view name)
{
    for (std::size_t number = 0; number < entryCount_[folder]; ++number) {
        const std::uint64_t at = entryOffset(folder, number);
        const ByteView entry = ByteView(bytes_).sub(static_cast<std::int64_t>(at), 32);
        if (!entry.matches(name, 0) || entry.u8(11) == 0x0F)
            continue;
        std::uint32_t cluster
            = entry.u16le(26) | (isFAT32() ? std::uint32_t { entry.u16le(20) } << 16 : 0);
        while (cluster >= 2 && cluster < nextCluster_) {
            const auto next = fat(cluster);
            setFAT(cluster, 0);
            cluster = next;
        }
        bytes_[at] = 0xE5;
        while (number > 0 && bytes_[entryOffset(folder, number - 1) + 11] == 0x0F)
            bytes_[entryOffset(folder, --number)] = 0xE5;
        return;
    }
    throw std::logic_error("no such entry: " + std::string(name));
}

std::uint32_t FATImage::fat(std::uint32_t cluster) const
{
    const auto table = ByteView(bytes_).sub(
        static_cast<std::int64_t>(fatOffset()), static_cast<std::int64_t>(fatSize()));
    if (type_ == FileSystemType::fat12)
        return table.u16le(cluster * 3 / 2) >> cluster % 2 * 4 & 0xFFF;
    return isFAT32() ? table.u32le(cluster * 4LL) : table.u16le(cluster * 2LL);
}

void FATImage::setFAT(std::uint32_t cluster, std::uint32_t value)
{
    for (const auto table : { fatOffset(), fatOffset() + fatSize() }) {
        if (type_ == FileSystemType::fat12) {
            const std::uint64_t at = table + cluster * 3 / 2;
            const std::uint32_t old = ByteView(bytes_).u16le(static_cast<std::int64_t>(at));
            putLE(bytes_, at,
                cluster % 2 != 0 ? (old & 0x000F) | value << 4 : (old & 0xF000) | value, 2);
        } else {
            const int width = isFAT32() ? 4 : 2;
            putLE(bytes_, table + std::uint64_t { cluster } * static_cast<unsigned>(width), value,
                width);
        }
    }
}

std::uint32_t FATImage::endMark() const
{
    return type_ == FileSystemType::fat12 ? 0xFF8 : isFAT32() ? 0x0FFFFFF8 : 0xFFF8;
}

std::uint64_t FATImage::entryOffset(std::uint32_t folder, std::size_t number) const
{
    if (folder == root && !isFAT32())
        return fatOffset() + 2 * fatSize() + number * 32;
    std::uint32_t cluster = folder == root ? 2 : folder;
    for (std::size_t left = number * 32 / clusterSize_; left > 0; --left)
        cluster = fat(cluster);
    return offsetOf(cluster) + number * 32 % clusterSize_;
}
