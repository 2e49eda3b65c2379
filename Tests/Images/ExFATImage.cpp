#include "Tests/Images/ExFATImage.h"

#include "Tests/Support/TestSource.h"

#include <stdexcept>

namespace {

void put(Bytes& bytes, std::uint64_t at, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        bytes.at(at++) = static_cast<std::uint8_t>(value >> 8 * i);
}

std::uint16_t checksumOf(const std::vector<Bytes>& set)
{
    std::uint32_t sum = 0;
    for (std::size_t number = 0; number < set.size(); ++number)
        for (std::size_t at = 0; at < 32; ++at)
            if (number != 0 || (at != 2 && at != 3))
                sum = ((sum << 15 | sum >> 1) + set[number][at]) & 0xFFFF;
    return static_cast<std::uint16_t>(sum);
}

/// The hash of a name in upper case, as far as our tests' names go.
std::uint16_t nameHashOf(const std::u16string& name)
{
    std::uint32_t sum = 0;
    for (const std::uint32_t unit : name) {
        const bool isLower = (unit >= 'a' && unit <= 'z') || (unit >= 0xE0 && unit <= 0xFE);
        for (const int shift : { 0, 8 })
            sum = ((sum << 15 | sum >> 1) + ((unit - (isLower ? 0x20 : 0)) >> shift & 0xFF)) & 0xFFFF;
    }
    return static_cast<std::uint16_t>(sum);
}

} // namespace

ExFATImage::ExFATImage(const Options& options)
    : options_(options)
{
    const std::uint64_t sector = std::uint64_t { 1 } << options_.sectorShift;
    const std::uint64_t fatSectors = ((options_.clusters + 2) * 4 + sector - 1) / sector;
    const std::uint64_t fatCount = options_.usesSecondFAT ? 2 : 1;
    const std::uint64_t heapSector = 24 + fatCount * fatSectors;
    const std::uint64_t sectors = heapSector + (std::uint64_t { options_.clusters } << options_.clusterShift);
    fatOffset_ = (24 + (options_.usesSecondFAT ? fatSectors : 0)) * sector;
    fatSize_ = fatSectors * sector;
    heapOffset_ = heapSector * sector;
    bytes_.resize(sectors * sector);

    write(0,
        bytesOf("\xEB\x76\x90"
                "EXFAT   "));
    put(bytes_, 64, 12345, 8); // the partition's place on some disk, which says nothing about this image
    put(bytes_, 72, sectors, 8);
    put(bytes_, 80, 24, 4);
    put(bytes_, 84, fatSectors, 4);
    put(bytes_, 88, heapSector, 4);
    put(bytes_, 92, options_.clusters, 4);
    put(bytes_, 104, 0x0100, 2);
    put(bytes_, 106, options_.usesSecondFAT ? 1 : 0, 2);
    put(bytes_, 108, static_cast<std::uint64_t>(options_.sectorShift), 1);
    put(bytes_, 109, static_cast<std::uint64_t>(options_.clusterShift), 1);
    put(bytes_, 110, fatCount, 1);
    put(bytes_, 510, 0xAA55, 2);

    const bool isRoomy = options_.clusters > 100;
    const std::uint64_t bitmapSize = (options_.clusters + 7) / 8;
    const auto bitmap = allocate(static_cast<std::uint32_t>((bitmapSize + clusterSize() - 1) / clusterSize()), false);
    root_ = allocate(isRoomy ? 8 : 1, false);
    put(bytes_, 96, root_, 4);
    Bytes label(32);
    label[0] = 0x83;
    label[1] = 4;
    label[2] = 'K', label[4] = 'O', label[6] = 'R', label[8] = 'T';
    addRaw(root_, label);
    Bytes entry(32);
    entry[0] = 0x81;
    entry[1] = options_.usesSecondFAT ? 1 : 0;
    put(entry, 20, bitmap, 4);
    put(entry, 24, bitmapSize, 8);
    if (options_.hasBitmap)
        addRaw(root_, entry);
}

std::uint32_t ExFATImage::allocate(std::uint32_t count, bool isContiguous)
{
    const std::uint32_t first = nextCluster_;
    nextCluster_ += count;
    for (std::uint32_t cluster = first; cluster < nextCluster_; ++cluster) {
        if (!isContiguous)
            setFAT(cluster, cluster + 1 < nextCluster_ ? cluster + 1 : endMark);
        setUsed(cluster, true);
        clustersOf_[first].push_back(cluster);
    }
    return first;
}

std::size_t ExFATImage::addSet(std::uint32_t folder, const Entry& entry)
{
    const std::size_t names = (entry.name.size() + 14) / 15;
    std::vector<Bytes> set(names + 2, Bytes(32));
    set[0][0] = 0x85;
    put(set[0], 1, names + 1, 1);
    put(set[0], 4, entry.attributes, 2);
    put(set[0], 12, entry.modified, 4);
    put(set[0], 23, entry.modifiedOffset, 1);
    set[1][0] = 0xC0;
    put(set[1], 1, entry.isContiguous && entry.size > 0 ? 3 : 1, 1);
    put(set[1], 3, entry.name.size(), 1);
    put(set[1], 4, nameHashOf(entry.name), 2);
    put(set[1], 8, std::min(entry.validSize, entry.size), 8);
    put(set[1], 20, entry.cluster, 4);
    put(set[1], 24, entry.size, 8);
    for (std::size_t i = 0; i < entry.name.size(); ++i)
        put(set[2 + i / 15], 2 + i % 15 * 2, entry.name[i], 2);
    for (std::size_t i = 0; i < names; ++i)
        set[2 + i][0] = 0xC1;
    put(set[0], 2, checksumOf(set), 2);
    const std::size_t number = entryCount_[folder];
    for (const auto& raw : set)
        addRaw(folder, raw);
    return number;
}

void ExFATImage::addRaw(std::uint32_t folder, const Bytes& entry)
{
    write(entryOffset(folder, entryCount_[folder]), entry);
    ++entryCount_[folder];
}

std::uint32_t ExFATImage::addFile(std::uint32_t folder, Entry entry, const Bytes& content)
{
    entry.size = content.size();
    if (!content.empty()) {
        const auto count = static_cast<std::uint32_t>((content.size() + clusterSize() - 1) / clusterSize());
        entry.cluster = allocate(count, entry.isContiguous);
        write(offsetOf(entry.cluster), content);
    }
    addSet(folder, entry);
    return entry.cluster;
}

std::uint32_t ExFATImage::addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters)
{
    entry.attributes = 0x10;
    entry.cluster = allocate(clusters, entry.isContiguous);
    entry.size = clusters * clusterSize();
    addSet(folder, entry);
    return entry.cluster;
}

void ExFATImage::remove(std::uint32_t folder, const std::u16string& name)
{
    for (std::size_t number = 0; number < entryCount_[folder]; ++number) {
        const auto entry = [&](std::size_t i) {
            return ByteView(bytes_).sub(static_cast<std::int64_t>(entryOffset(folder, i)), 32);
        };
        if (entry(number).u8(0) != 0x85)
            continue;
        std::u16string found;
        for (std::size_t i = 0; i < entry(number + 1).u8(3); ++i)
            found += static_cast<char16_t>(entry(number + 2 + i / 15).u16le(static_cast<std::int64_t>(2 + i % 15 * 2)));
        if (found != name)
            continue;
        for (const auto cluster : clustersOf_[entry(number + 1).u32le(20)])
            setUsed(cluster, false);
        for (std::size_t last = number + entry(number).u8(1); number <= last; ++number)
            bytes_[entryOffset(folder, number)] &= 0x7F;
        return;
    }
    throw std::logic_error("no such set");
}

void ExFATImage::renewChecksums()
{
    for (std::uint64_t at = heapOffset_; at + 32 <= bytes_.size(); at += 32) {
        if ((bytes_[at] | 0x80) != 0x85)
            continue;
        std::vector<Bytes> set;
        for (std::uint64_t entry = at; entry + 32 <= bytes_.size() && set.size() <= bytes_[at + 1]; entry += 32) {
            set.emplace_back(bytes_.begin() + static_cast<std::ptrdiff_t>(entry),
                bytes_.begin() + static_cast<std::ptrdiff_t>(entry + 32));
            set.back()[0] |= 0x80;
        }
        put(bytes_, at + 2, checksumOf(set), 2);
    }
}

void ExFATImage::setFAT(std::uint32_t cluster, std::uint32_t value) { put(bytes_, fatOffset_ + cluster * 4, value, 4); }

void ExFATImage::setUsed(std::uint32_t cluster, bool isUsed)
{
    auto& byte = bytes_.at(bitmapOffset() + (cluster - 2) / 8);
    const auto bit = static_cast<std::uint8_t>(1 << (cluster - 2) % 8);
    byte = static_cast<std::uint8_t>(isUsed ? byte | bit : byte & ~bit);
}

std::uint64_t ExFATImage::entryOffset(std::uint32_t folder, std::size_t number) const
{
    const auto& clusters = clustersOf_.at(folder);
    return offsetOf(clusters.at(number * 32 / clusterSize())) + number * 32 % clusterSize();
}

void ExFATImage::write(std::uint64_t offset, const Bytes& content)
{
    for (const auto byte : content)
        bytes_.at(offset++) = byte;
}

std::unique_ptr<DiskSource> ExFATImage::source() const { return makeSource(bytes_); }
