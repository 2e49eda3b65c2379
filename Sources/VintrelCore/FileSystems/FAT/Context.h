#pragma once

#include "VintrelCore/FileSystems/Clusters/ClusterHeap.h"
#include "VintrelCore/FileSystems/FAT/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

class DiskSource;
struct ReadReport;

/// A volume's geometry and its allocation table. Used by one thread at a time.
class FATContext {
public:
    /// Where the second copy of the FAT stands in for sectors of the first.
    enum class SecondFAT : std::uint8_t {
        forUnreadable, ///< if any sector is reported as unreadable
        forZeros, ///< also if none is: the copy of a failing disk has zeros where it was unreadable
    };

    /// Reads the FAT.
    FATContext(
        DiskSource& source, FATGeometry geometry, SecondFAT secondFAT = SecondFAT::forUnreadable);

    DiskSource& source() const { return source_; }
    const FATGeometry& geometry() const { return geometry_; }

    /// Whether there is no FAT to ask (it is empty, or too large to be true). Files are then taken
    /// to lie in one piece.
    bool fatUnavailable() const { return fatUnavailable_; }
    /// Whether a FAT can begin with these bytes.
    static bool beginsTable(ByteView table);
    /// How many clusters can be in a chain.
    std::uint64_t entryCount() const
    {
        return fatUnavailable_ ? geometry_.heap.count : loadedEntries();
    }
    /// What the FAT holds for a cluster: the next one, an end mark, or 0 for free. 0 also beyond
    /// the table.
    std::uint32_t entry(std::uint32_t cluster) const;
    /// The chain that starts at `from`, at most `maxClusters` long. Ends incomplete where it loops,
    /// or leaves the volume.
    ClusterChain chain(std::uint32_t from, std::uint64_t maxClusters);
    /// Whether the FAT calls the `count` clusters from `first` on free. True when it is
    /// unavailable.
    bool areFree(std::uint32_t first, std::uint64_t count) const
    {
        return !used_.containsAny(first, count);
    }

    /// The clusters whose entry is not 0.
    const ClusterBits& used() const { return used_; }
    /// How many of the table's sectors are unreadable in both copies.
    std::uint64_t unreadableSectors() const { return unreadableSectors_; }
    /// How many of the table's sectors are all zero, although they are readable, where the second
    /// copy's are not. With `forZeros` these are the second copy's.
    std::uint64_t zeroedSectors() const { return zeroedSectors_; }

private:
    void load(SecondFAT secondFAT);
    void repairFAT(ReadReport& first);
    void compareFATs(Bytes& first, SecondFAT secondFAT);
    std::uint64_t loadedEntries() const;

    DiskSource& source_;
    FATGeometry geometry_;
    Bytes fat_;
    bool fatUnavailable_ = false;
    std::uint64_t unreadableSectors_ = 0;
    std::uint64_t zeroedSectors_ = 0;
    ClusterBits used_;
    ClusterBits seen_; // scratch of chain(): empty between calls
};
