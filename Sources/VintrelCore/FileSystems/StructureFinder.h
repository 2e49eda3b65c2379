#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/DeepScanResult.h"

#include <cstdint>
#include <set>

class DiskSource;

/// One sector of a sweep, with what is in memory from it on.
struct SweptSector {
    static constexpr std::size_t size = 512; ///< boot sectors are found at any multiple of it

    ByteView bytes;       ///< from the sector on; at least a whole one
    std::uint64_t offset; ///< in bytes on the source

    ByteView sector() const { return bytes.span().first(size); }
};

/// Finds out which structure of a file system lies in each sector of a sweep, and keeps it. It
/// interprets nothing. Used by one thread.
class StructureFinder {
public:
    /// Both must outlive the finder.
    StructureFinder(DiskSource& source, DeepScanResult& result)
        : source_(source)
        , result_(result)
    {
    }

    /// Looks at one sector. Of the structures that it could be the first one in the table of
    /// StructureFinder.cpp counts.
    void look(const SweptSector& swept);

private:
    friend struct StructureRows;

    /// Blocks lie at multiples of their size, counted from the source's start or from that of a
    /// container: partitions of old disks begin at odd sectors.
    bool isAPFSAligned(std::uint64_t offset) const;
    bool findAPFSLeaf(const SweptSector& swept);
    bool findFATDirectory(const SweptSector& swept);
    bool findMFTRecord(const SweptSector& swept);
    bool findNTFSIndexBlock(const SweptSector& swept);
    bool findBootSector(const SweptSector& swept);
    bool findHFSHeader(const SweptSector& swept);
    bool findHFSNode(const SweptSector& swept);
    bool findAPFSSuperblock(const SweptSector& swept);
    bool findAPFSVolume(const SweptSector& swept);
    bool findAPFSObjectMap(const SweptSector& swept);
    bool findExFATDirectory(const SweptSector& swept);
    bool findExtSuperblock(const SweptSector& swept);
    bool findExtNode(const SweptSector& swept);
    bool findExtFolderInodes(const SweptSector& swept);
    bool findExtJournal(const SweptSector& swept);
    bool findExtBlockList(const SweptSector& swept);

    DiskSource& source_;
    DeepScanResult& result_;
    std::set<std::uint64_t> apfsAlignments_ { 0 };
};
