#pragma once

#include "Tests/Images/DiskImage.h"

#include <map>
#include <string>
#include <vector>

/// Builds an exFAT volume in memory, entry by entry, sound or damaged.
class ExFATImage : public DiskImage {
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
    /// Takes the next `count` free clusters in one piece; with a chain in the FAT unless they need
    /// none.
    std::uint32_t allocate(std::uint64_t count, bool isContiguous);
    void addSet(std::uint32_t folder, const Entry& entry);
    /// Adds a file with this content; returns its first cluster.
    std::uint32_t addFile(std::uint32_t folder, Entry entry, const Bytes& content);
    std::uint32_t addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters = 1);
    /// Deletes as systems do: clears the in-use bits, and frees the clusters in the bitmap but not
    /// in the FAT.
    void remove(const std::u16string& name);

    /// Gives every set that is not cut off the checksum of what it holds by now.
    void renewChecksums();

    void setFAT(std::uint32_t cluster, std::uint32_t value);
    void setUsed(std::uint32_t cluster, bool isUsed);
    std::uint64_t clusterSize() const { return clusterSize_; }
    std::uint64_t offsetOf(std::uint32_t cluster) const
    {
        return heapOffset_ + (cluster - 2) * clusterSize_;
    }
    std::uint64_t entryOffset(std::uint32_t folder, std::size_t number) const;
    std::uint64_t fatOffset() const { return fatOffset_; }
    std::uint64_t bitmapOffset() const { return offsetOf(2); }

    static constexpr std::uint32_t endMark = 0xFFFFFFFF;

private:
    struct Set {
        std::u16string name;
        std::uint32_t cluster;
        std::vector<std::uint64_t> entries; // their offsets
    };

    std::uint64_t addEntry(std::uint32_t folder, std::uint8_t type);
    void writeChecksum(const Set& set);

    std::uint64_t clusterSize_ = 0;
    std::uint64_t fatOffset_ = 0;
    std::uint64_t heapOffset_ = 0;
    std::uint32_t nextCluster_ = 2;
    std::uint32_t root_ = 0;
    std::vector<Set> sets_;
    std::map<std::uint32_t, std::size_t> entryCount_; // by folder
    std::map<std::uint32_t, std::vector<std::uint32_t>>
        clustersOf_; // of everything allocated, by first cluster
};
