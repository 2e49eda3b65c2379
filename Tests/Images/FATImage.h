#pragma once

#include "Tests/Images/DiskImage.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <map>
#include <string>
#include <string_view>

/// Builds a FAT volume in memory, entry by entry, sound or damaged. Sectors have 512 bytes.
class FATImage : public DiskImage {
public:
    struct Options {
        FileSystemType type = FileSystemType::fat16;
        std::uint32_t clusters = 0; ///< 0: few, but enough for the type
        std::uint32_t sectorsPerCluster = 1;
        std::string label = "NO NAME    ";
    };

    struct Entry {
        std::string name;             ///< the eleven bytes of the short name, as stored
        std::u16string longName = {}; ///< none: no pieces
        std::uint8_t attributes = 0x20;
        std::uint8_t caseFlags = 0;
        std::uint32_t cluster = 0;
        std::uint32_t size = 0;
    };

    /// Stands for the root directory where a folder is named by its first cluster.
    static constexpr std::uint32_t root = 0;

    explicit FATImage(const Options& options);

    /// Adds an entry with its long-name pieces. The folder must have room.
    void addEntry(std::uint32_t folder, const Entry& entry);
    /// Adds a file with this content, in the next clusters that nobody has, and returns its first
    /// cluster.
    std::uint32_t addFile(std::uint32_t folder, Entry entry, const Bytes& content);
    /// Adds a folder with "." and ".." and returns its first cluster.
    std::uint32_t addFolder(std::uint32_t folder, Entry entry, std::uint32_t clusters = 1);
    /// Deletes as systems do: marks the entry and its pieces, and frees the chain.
    void remove(std::uint32_t folder, std::string_view name);

    void setFAT(std::uint32_t cluster, std::uint32_t value);
    /// A value of the FAT that ends a chain: the lowest one.
    std::uint32_t endMark() const;

    std::uint64_t offsetOf(std::uint32_t cluster) const
    {
        return dataOffset_ + (cluster - 2) * clusterSize_;
    }
    std::uint64_t fatOffset() const { return reservedSectors * 512; }
    std::uint64_t fatSize() const { return fatSectors_ * 512; }
    /// The place of an entry of a folder, by its number.
    std::uint64_t entryOffset(std::uint32_t folder, std::size_t number) const;

private:
    static constexpr std::uint64_t reservedSectors = 32;
    static constexpr std::uint64_t rootEntries = 512;

    bool isFAT32() const { return type_ == FileSystemType::fat32; }
    std::uint32_t fat(std::uint32_t cluster) const;
    std::uint32_t allocate(std::uint64_t count);

    FileSystemType type_;
    std::uint64_t clusterSize_;
    std::uint64_t fatSectors_ = 0;
    std::uint64_t dataOffset_ = 0;
    std::uint32_t nextCluster_ = 2;
    std::map<std::uint32_t, std::size_t> entryCount_; // by folder
};
