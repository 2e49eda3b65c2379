#include "Tests/Images/FATImage.h"

#include "Tests/Support/TestSource.h"

#include <algorithm>
#include <stdexcept>

namespace {

void put(Bytes& bytes, std::uint64_t at, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        bytes.at(at + static_cast<std::uint64_t>(i)) = static_cast<std::uint8_t>(value >> 8 * i);
}

void put(Bytes& bytes, std::uint64_t at, std::string_view text)
{
    for (const char character : text)
        bytes.at(at++) = static_cast<std::uint8_t>(character);
}

std::uint8_t checksumOf(std::string_view name)
{
    unsigned sum = 0;
    for (const char character : name)
        sum = (((sum & 1) << 7 | sum >> 1) + static_cast<unsigned char>(character)) & 0xFF;
    return static_cast<std::uint8_t>(sum);
}

std::uint32_t fewestClusters(FileSystemType type)
{
    return type == FileSystemType::fat16 ? 4085 : 400; // FAT32 is told by its fields, however few its clusters
}

} // namespace

FATImage::FATImage(const Options& options)
    : options_(options)
{
    if (options_.clusters == 0)
        options_.clusters = fewestClusters(options_.type);
    const std::uint64_t bits = options_.type == FileSystemType::fat12 ? 12 : isFAT32() ? 32 : 16;
    fatSectors_ = ((options_.clusters + 2) * bits / 8 + 512) / 512;
    const std::uint64_t rootSectors = isFAT32() ? 0 : rootEntries * 32 / 512;
    const std::uint64_t dataSector = reservedSectors + fatCount * fatSectors_ + rootSectors;
    dataOffset_ = dataSector * 512;
    const std::uint64_t totalSectors = dataSector + std::uint64_t { options_.clusters } * options_.sectorsPerCluster;
    bytes_.resize(totalSectors * 512);
    writeBootSector(totalSectors);
    setFAT(0, endMark() & ~7u);
    setFAT(1, endMark());
    if (isFAT32())
        allocate(1);
}

void FATImage::writeBootSector(std::uint64_t totalSectors)
{
    put(bytes_, 0,
        "\xEB\x58\x90"
        "TESTDISK");
    put(bytes_, 11, 512, 2);
    put(bytes_, 13, options_.sectorsPerCluster, 1);
    put(bytes_, 14, reservedSectors, 2);
    put(bytes_, 16, fatCount, 1);
    put(bytes_, 17, isFAT32() ? 0 : rootEntries, 2);
    put(bytes_, 21, 0xF8, 1);
    put(bytes_, 22, isFAT32() ? 0 : fatSectors_, 2);
    put(bytes_, 32, totalSectors, 4);
    if (isFAT32()) {
        put(bytes_, 36, fatSectors_, 4);
        put(bytes_, 44, 2, 4);
    }
    put(bytes_, isFAT32() ? 71 : 43, options_.label);
    put(bytes_, 510, 0xAA55, 2);
}

std::uint32_t FATImage::allocate(std::uint32_t count)
{
    const std::uint32_t first = nextCluster_;
    nextCluster_ += count;
    for (std::uint32_t cluster = first; cluster < nextCluster_; ++cluster)
        setFAT(cluster, cluster + 1 < nextCluster_ ? cluster + 1 : endMark());
    return first;
}

void FATImage::addEntry(std::uint32_t folder, const Entry& entry)
{
    std::size_t& number = entryCount_[folder];
    const std::size_t pieces = (entry.longName.size() + 12) / 13;
    for (std::size_t piece = pieces; piece > 0; --piece) {
        const std::uint64_t at = entryOffset(folder, number++);
        put(bytes_, at, piece | (piece == pieces ? 0x40 : 0), 1);
        put(bytes_, at + 11, 0x0F, 1);
        put(bytes_, at + 13, checksumOf(entry.name), 1);
        constexpr int places[] = { 1, 3, 5, 7, 9, 14, 16, 18, 20, 22, 24, 28, 30 };
        std::size_t unit = (piece - 1) * 13;
        for (const int place : places) {
            const auto value = unit < entry.longName.size() ? entry.longName[unit]
                : unit == entry.longName.size()             ? u'\0'
                                                            : u'\uFFFF';
            put(bytes_, at + static_cast<std::uint64_t>(place), value, 2);
            ++unit;
        }
    }
    const std::uint64_t at = entryOffset(folder, number++);
    if (entry.name.size() != 11)
        throw std::logic_error("a short name has eleven bytes: " + entry.name);
    put(bytes_, at, entry.name);
    put(bytes_, at + 11, entry.attributes, 1);
    put(bytes_, at + 12, entry.caseFlags, 1);
    put(bytes_, at + 20, isFAT32() ? entry.cluster >> 16 : 0, 2);
    put(bytes_, at + 22, entry.modifiedTime, 2);
    put(bytes_, at + 24, entry.modifiedDate, 2);
    put(bytes_, at + 26, entry.cluster & 0xFFFF, 2);
    put(bytes_, at + 28, entry.size, 4);
}

std::uint32_t FATImage::addFile(std::uint32_t folder, Entry entry, const Bytes& content)
{
    entry.size = static_cast<std::uint32_t>(content.size());
    if (!content.empty()) {
        entry.cluster = allocate(static_cast<std::uint32_t>((content.size() + clusterSize() - 1) / clusterSize()));
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
    addEntry(entry.cluster, { .name = ".          ", .attributes = 0x10, .cluster = entry.cluster });
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
        free(entry.u16le(26) | (isFAT32() ? std::uint32_t { entry.u16le(20) } << 16 : 0));
        bytes_[at] = 0xE5;
        while (number > 0 && bytes_[entryOffset(folder, number - 1) + 11] == 0x0F)
            bytes_[entryOffset(folder, --number)] = 0xE5;
        return;
    }
    throw std::logic_error("no such entry: " + std::string(name));
}

void FATImage::free(std::uint32_t cluster)
{
    while (cluster >= 2 && cluster < options_.clusters + 2) {
        const auto next = fat(cluster);
        setFAT(cluster, 0);
        cluster = next;
    }
}

std::uint32_t FATImage::fat(std::uint32_t cluster) const
{
    const ByteView table
        = ByteView(bytes_).sub(static_cast<std::int64_t>(fatOffset()), static_cast<std::int64_t>(fatSize()));
    switch (options_.type) {
    case FileSystemType::fat12:
        return table.u16le(cluster * 3 / 2) >> (cluster % 2 != 0 ? 4 : 0) & 0xFFF;
    case FileSystemType::fat16:
        return table.u16le(cluster * 2);
    default:
        return table.u32le(cluster * 4);
    }
}

void FATImage::setFAT(std::uint32_t cluster, std::uint32_t value)
{
    for (std::uint32_t copy = 0; copy < fatCount; ++copy) {
        const std::uint64_t table = fatOffset() + copy * fatSize();
        switch (options_.type) {
        case FileSystemType::fat12: {
            const std::uint64_t at = table + cluster * 3 / 2;
            const std::uint32_t old = ByteView(bytes_).u16le(static_cast<std::int64_t>(at));
            put(bytes_, at, cluster % 2 != 0 ? (old & 0x000F) | value << 4 : (old & 0xF000) | (value & 0xFFF), 2);
            break;
        }
        case FileSystemType::fat16:
            put(bytes_, table + cluster * 2, value, 2);
            break;
        default:
            put(bytes_, table + cluster * 4, value, 4);
        }
    }
}

std::uint32_t FATImage::endMark() const
{
    return options_.type == FileSystemType::fat12 ? 0xFFF : isFAT32() ? 0x0FFFFFFF : 0xFFFF;
}

std::uint64_t FATImage::offsetOf(std::uint32_t cluster) const { return dataOffset_ + (cluster - 2) * clusterSize(); }

std::uint64_t FATImage::entryOffset(std::uint32_t folder, std::size_t number) const
{
    if (folder == root && !isFAT32())
        return fatOffset() + fatCount * fatSize() + number * 32;
    std::uint32_t cluster = folder == root ? 2 : folder;
    for (std::size_t left = number * 32 / clusterSize(); left > 0; --left)
        cluster = fat(cluster);
    return offsetOf(cluster) + number * 32 % clusterSize();
}

void FATImage::write(std::uint64_t offset, const Bytes& content)
{
    for (const auto byte : content)
        bytes_.at(offset++) = byte;
}

std::unique_ptr<DiskSource> FATImage::source() const { return makeSource(bytes_); }
