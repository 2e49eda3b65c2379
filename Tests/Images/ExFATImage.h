#pragma once

#include "VintrelCore/Binary.h"
#include "VintrelCore/DiskSource.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// Builds an exFAT volume in memory, entry by entry, sound or damaged.
class ExFATImage {
public:
    struct Options {
        std::uint32_t clusters = 200;
        int sectorShift = 9;
        int clusterShift = 0; ///< sectors in a cluster
        bool hasBitmap = true;
        bool usesSecondFAT = false;
    };

    struct Entry {
        std::u16string name;
        std::uint16_t attributes = 0x20;
        std::uint32_t modified = 0x5B436000; ///< 3 October 2025, 12:00:00
        std::uint8_t modifiedOffset = 0x80;  ///< UTC
        bool isContiguous = true;
        std::uint32_t cluster = 0;
        std::uint64_t size = 0;
        std::uint64_t validSize = ~std::uint64_t { 0 }; ///< more than the size: the size
    };

    explicit ExFATImage(const Options& options);
    ExFATImage()
        : ExFATImage(Options {})
    {
    }

    std::uint32_t root() const { return root_; }
    /// Takes the next `count` free clusters in one piece; with a chain in the FAT unless they need none.
    std::uint32_t allocate(std::uint32_t count, bool isContiguous);
    /// Adds a set of entries. Returns the number of its first entry in the folder.
    std::size_t addSet(std::uint32_t folder, const Entry& entry);
    /// Adds a file with this content; returns its first cluster.
    std::uint32_t addFile(std::uint32_t folder, Entry entry, const Bytes& content);
    std::uint32_t addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters = 1);
    /// Deletes as systems do: clears the in-use bits, and frees the clusters in the bitmap but not in the FAT.
    void remove(std::uint32_t folder, const std::u16string& name);

    /// Gives every set that still has its file entry the checksum of what follows it.
    void renewChecksums();

    void setFAT(std::uint32_t cluster, std::uint32_t value);
    void setUsed(std::uint32_t cluster, bool isUsed);
    std::uint64_t clusterSize() const { return std::uint64_t { 1 } << (options_.sectorShift + options_.clusterShift); }
    std::uint64_t offsetOf(std::uint32_t cluster) const { return heapOffset_ + (cluster - 2) * clusterSize(); }
    std::uint64_t entryOffset(std::uint32_t folder, std::size_t number) const;
    std::uint64_t fatOffset() const { return fatOffset_; }
    std::uint64_t fatSize() const { return fatSize_; }
    std::uint64_t bitmapOffset() const { return offsetOf(2); }
    void write(std::uint64_t offset, const Bytes& content);
    Bytes& bytes() { return bytes_; }
    const Bytes& bytes() const { return bytes_; }
    std::unique_ptr<DiskSource> source() const;

    static constexpr std::uint32_t endMark = 0xFFFFFFFF;

private:
    void addRaw(std::uint32_t folder, const Bytes& entry);

    Options options_;
    std::uint64_t fatOffset_ = 0;
    std::uint64_t fatSize_ = 0;
    std::uint64_t heapOffset_ = 0;
    std::uint32_t nextCluster_ = 2;
    std::uint32_t root_ = 0;
    std::map<std::uint32_t, std::size_t> entryCount_;                // by folder
    std::map<std::uint32_t, std::vector<std::uint32_t>> clustersOf_; // of everything allocated, by first cluster
    Bytes bytes_;
};
