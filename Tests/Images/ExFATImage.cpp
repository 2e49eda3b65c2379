#include "Tests/Images/ExFATImage.h"

#include <algorithm>
#include <stdexcept>

namespace {

/// A step of the format's checksums, which all go the same way.
std::uint32_t added(std::uint32_t sum, std::uint32_t byte)
{
    return ((sum << 15 | sum >> 1) + byte) & 0xFFFF;
}

/// The hash of a name in upper case, as far as our tests' names go.
std::uint32_t nameHashOf(const std::u16string& name)
{
    std::uint32_t sum = 0;
    for (const std::uint32_t unit : name) {
        const bool isLower = (unit >= 'a' && unit <= 'z') || (unit >= 0xE0 && unit <= 0xFE);
        sum = added(added(sum, (unit - (isLower ? 0x20 : 0)) & 0xFF), unit >> 8);
    }
    return sum;
}

} // namespace

ExFATImage::ExFATImage(const Options& options)
    : clusterSize_(std::uint64_t { 1 } << (options.sectorShift + options.clusterShift))
{
    const std::uint64_t sector = std::uint64_t { 1 } << options.sectorShift;
    const std::uint64_t fatSectors = ((options.clusters + 2) * 4ULL + sector - 1) / sector;
    const std::uint64_t fatCount = options.usesSecondFAT ? 2 : 1;
    const std::uint64_t heapSector = 24 + fatCount * fatSectors;
    const std::uint64_t sectors
        = heapSector + (std::uint64_t { options.clusters } << options.clusterShift);
    fatOffset_ = (heapSector - fatSectors) * sector;
    heapOffset_ = heapSector * sector;
    bytes_.resize(sectors * sector);
    setFAT(0, 0xFFFFFFF8); // the kind of the medium
    setFAT(1, endMark);
    const std::uint64_t bitmapSize = (options.clusters + 7) / 8;
    const auto bitmap = allocate((bitmapSize + clusterSize_ - 1) / clusterSize_, false);
    root_ = allocate(options.clusters > 100 ? 8 : 1, false);

    write(0,
        bytesOf("\xEB\x76\x90"
                "EXFAT   "));
    putLE(bytes_, 64, 12345,
        8); // the partition's place on some disk, which says nothing about this image
    putLE(bytes_, 72, sectors, 8);
    putLE(bytes_, 80, 24, 4);
    putLE(bytes_, 84, fatSectors, 4);
    putLE(bytes_, 88, heapSector, 4);
    putLE(bytes_, 92, options.clusters, 4);
    putLE(bytes_, 96, root_, 4);
    putLE(bytes_, 106, fatCount - 1, 2);
    putLE(bytes_, 108, static_cast<std::uint64_t>(options.sectorShift), 1);
    putLE(bytes_, 109, static_cast<std::uint64_t>(options.clusterShift), 1);
    putLE(bytes_, 110, fatCount, 1);
    putLE(bytes_, 510, 0xAA55, 2);

    write(addEntry(root_, 0x83) + 1, bytesOf({ "\4K\0O\0R\0T", 8 }));
    if (options.hasBitmap) {
        const auto entry = addEntry(root_, 0x81);
        putLE(bytes_, entry + 1, fatCount - 1, 1);
        putLE(bytes_, entry + 20, bitmap, 4);
        putLE(bytes_, entry + 24, bitmapSize, 8);
    }
}

std::uint32_t ExFATImage::allocate(std::uint64_t count, bool isContiguous)
{
    const std::uint32_t first = nextCluster_;
    nextCluster_ += static_cast<std::uint32_t>(count);
    for (std::uint32_t cluster = first; cluster < nextCluster_; ++cluster) {
        if (!isContiguous)
            setFAT(cluster, cluster + 1 < nextCluster_ ? cluster + 1 : endMark);
        setUsed(cluster, true);
        clustersOf_[first].push_back(cluster);
    }
    return first;
}

std::uint64_t ExFATImage::addEntry(std::uint32_t folder, std::uint8_t type)
{
    const auto at = entryOffset(folder, entryCount_[folder]++);
    bytes_[at] = type;
    return at;
}

void ExFATImage::addSet(std::uint32_t folder, const Entry& entry)
{
    const auto file = addEntry(folder, 0x85);
    const auto stream = addEntry(folder, 0xC0);
    Set set { .name = entry.name, .cluster = entry.cluster, .entries = { file, stream } };
    for (std::size_t i = 0; i < entry.name.size(); ++i) {
        if (i % 15 == 0)
            set.entries.push_back(addEntry(folder, 0xC1));
        putLE(bytes_, set.entries.back() + 2 + i % 15 * 2, entry.name[i], 2);
    }
    putLE(bytes_, file + 1, set.entries.size() - 1, 1);
    putLE(bytes_, file + 4, entry.attributes, 2);
    putLE(bytes_, file + 12, 0x5B436000, 4); // modified on 3 October 2025, 12:00:00
    putLE(bytes_, file + 23, 0x80, 1);       // UTC
    putLE(bytes_, stream + 1, entry.isContiguous && entry.size > 0 ? 3 : 1, 1);
    putLE(bytes_, stream + 3, entry.name.size(), 1);
    putLE(bytes_, stream + 4, nameHashOf(entry.name), 2);
    putLE(bytes_, stream + 8, std::min(entry.validSize, entry.size), 8);
    putLE(bytes_, stream + 20, entry.cluster, 4);
    putLE(bytes_, stream + 24, entry.size, 8);
    writeChecksum(set);
    sets_.push_back(std::move(set));
}

std::uint32_t ExFATImage::addFile(std::uint32_t folder, Entry entry, const Bytes& content)
{
    entry.size = content.size();
    if (!content.empty()) {
        entry.cluster
            = allocate((content.size() + clusterSize_ - 1) / clusterSize_, entry.isContiguous);
        write(offsetOf(entry.cluster), content);
    }
    addSet(folder, entry);
    return entry.cluster;
}

std::uint32_t ExFATImage::addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters)
{
    entry.attributes = 0x10;
    entry.cluster = allocate(clusters, entry.isContiguous);
    entry.size = clusters * clusterSize_;
    addSet(folder, entry);
    return entry.cluster;
}

void ExFATImage::remove(const std::u16string& name)
{
    const auto set = std::ranges::find(sets_, name, &Set::name);
    if (set == sets_.end())
        throw std::logic_error("no such set");
    for (const auto cluster : clustersOf_[set->cluster])
        setUsed(cluster, false);
    for (const auto entry : set->entries)
        bytes_[entry] &= 0x7F;
}

void ExFATImage::renewChecksums()
{
    for (const auto& set : sets_)
        if (set.entries.back() + 32 <= bytes_.size())
            writeChecksum(set);
}

void ExFATImage::writeChecksum(const Set& set)
{
    const auto place = set.entries.front() + 2;
    std::uint32_t sum = 0;
    for (const auto entry : set.entries)
        for (std::uint64_t at = entry; at < entry + 32; ++at)
            if (at != place && at != place + 1)
                sum = added(sum, at == entry ? bytes_[at] | 0x80u : bytes_[at]);
    putLE(bytes_, place, sum, 2);
}

void ExFATImage::setFAT(std::uint32_t cluster, std::uint32_t value)
{
    putLE(bytes_, fatOffset_ + cluster * 4ULL, value, 4);
}

void ExFATImage::setUsed(std::uint32_t cluster, bool isUsed)
{
    auto& byte = bytes_.at(bitmapOffset() + (cluster - 2) / 8);
    const auto bit = static_cast<std::uint8_t>(1 << (cluster - 2) % 8);
    byte = static_cast<std::uint8_t>(isUsed ? byte | bit : byte & ~bit);
}

std::uint64_t ExFATImage::entryOffset(std::uint32_t folder, std::size_t number) const
{
    const auto& clusters = clustersOf_.at(folder);
    return offsetOf(clusters.at(number * 32 / clusterSize_)) + number * 32 % clusterSize_;
}
