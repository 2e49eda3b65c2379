#include "VintrelCore/FileSystems/StructureFinder.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/APFS/Parser.h"
#include "VintrelCore/FileSystems/ExFAT/Parser.h"
#include "VintrelCore/FileSystems/Ext/LooseLists.h"
#include "VintrelCore/FileSystems/Ext/LooseNodes.h"
#include "VintrelCore/FileSystems/Ext/Parser.h"
#include "VintrelCore/FileSystems/Ext/Remains.h"
#include "VintrelCore/FileSystems/FAT/Entries.h"
#include "VintrelCore/FileSystems/FAT/Parser.h"
#include "VintrelCore/FileSystems/FSProbe.h"
#include "VintrelCore/FileSystems/HFSPlus/Parser.h"
#include "VintrelCore/FileSystems/NTFS/IndexBlock.h"
#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::uint64_t apfsBlockSize = 4096;
constexpr std::uint64_t hfsHeaderOffset = 1024; // from the start of the volume
constexpr std::uint8_t apfsTreeSubtype = 14;
constexpr std::uint8_t apfsContainerType = 1;
constexpr std::uint8_t apfsVolumeType = 13;
constexpr std::uint8_t apfsObjectMapType = 11;
constexpr std::int64_t apfsMagicOffset = 32;
constexpr std::uint8_t apfsPhysical = 0x40; // how it is stored

// The first looks, which nearly every sector fails. They touch a few bytes of a whole sector.

bool mayBeAPFSLeaf(const std::uint8_t* sector) { return sector[28] == apfsTreeSubtype; }

/// The first entry is a piece of a long name, or it shows nothing that a short one cannot have.
bool mayBeFATDirectory(const std::uint8_t* sector)
{
    const auto attributes = sector[11];
    return attributes == FATEntries::longNameAttributes
        || FATEntries::mayBeShortEntry(sector[0], attributes, sector[13]);
}

bool mayBeMFTRecord(const std::uint8_t* sector)
{
    return sector[0] == 'F' && sector[1] == 'I' && sector[2] == 'L' && sector[3] == 'E';
}

bool mayBeNTFSIndexBlock(const std::uint8_t* sector)
{
    return sector[0] == 'I' && sector[1] == 'N' && sector[2] == 'D' && sector[3] == 'X';
}

bool mayBeBootSector(const std::uint8_t* sector)
{
    const auto isNamed = [&](const char* name) {
        return std::equal(name, name + 4, sector + 3, [](char letter, std::uint8_t byte) {
            return static_cast<std::uint8_t>(letter) == byte;
        });
    };
    return (sector[510] == 0x55 && sector[511] == 0xAA) || isNamed("NTFS") || isNamed("EXFA");
}

bool mayBeHFSHeader(const std::uint8_t* sector)
{
    return sector[0] == 'H' && (sector[1] == '+' || sector[1] == 'X') && sector[2] == 0;
}

/// The kind and height of a B-tree's leaf, or of its header node, and a field that is always zero.
bool mayBeHFSNode(const std::uint8_t* sector)
{
    const auto kindAndHeight = static_cast<unsigned>(sector[8] << 8 | sector[9]);
    return (kindAndHeight == 0xFF01 || kindAndHeight == 0x0100) && (sector[12] | sector[13]) == 0;
}

bool mayBeAPFSSuperblock(const std::uint8_t* sector) { return sector[24] == apfsContainerType; }

bool mayBeAPFSVolume(const std::uint8_t* sector) { return sector[24] == apfsVolumeType; }

bool mayBeAPFSObjectMap(const std::uint8_t* sector)
{
    return sector[24] == apfsObjectMapType && sector[25] == 0 && sector[26] == 0
        && sector[27] == apfsPhysical;
}

bool mayBeExtSuperblock(const std::uint8_t* sector)
{
    return sector[56] == 0x53 && sector[57] == 0xEF;
}

bool mayBeExtJournal(const std::uint8_t* sector) { return sector[0] == 0xC0 && sector[1] == 0x3B; }

bool mayBeExtNode(const std::uint8_t* sector) { return sector[0] == 0x0A && sector[1] == 0xF3; }

/// The kind of a slot's inode, and a time of deletion that is zero.
bool mayBeExtFolderInode(const std::uint8_t* sector)
{
    const auto isOne
        = [](const std::uint8_t* slot) { return slot[1] >> 4 == 4 && (slot[20] | slot[23]) == 0; };
    return isOne(sector) || isOne(sector + ExtRemainders::leastSlot)
        || isOne(sector + 2 * ExtRemainders::leastSlot)
        || isOne(sector + 3 * ExtRemainders::leastSlot);
}

/// The first two numbers of a list are those of neighbours, or the first one is alone.
bool mayBeExtBlockList(const std::uint8_t* sector)
{
    const auto* const second = sector + 4;
    const bool isAlone = (second[0] | second[1] | second[2] | second[3]) == 0;
    return second[0] == static_cast<std::uint8_t>(sector[0] + 1)
        || (isAlone && (sector[0] | sector[1] | sector[2] | sector[3]) != 0);
}

/// Every type that an entry can have, deleted or not, leaves at most 5 in the low bits. Both are
/// looked at in one step, since a branch that random data takes now and then costs more.
bool mayBeExFATDirectory(const std::uint8_t* sector)
{
    constexpr unsigned lowBits = 0x1F;
    constexpr std::size_t secondEntry = 32;
    return std::max(sector[0] & lowBits, sector[secondEntry] & lowBits) <= 5
        && (sector[0] & 0x7F) != 0;
}

} // namespace

/// What a sweep may meet, in the order in which a sector is asked for it.
struct StructureRows {
    struct Row {
        bool (*mayBe)(const std::uint8_t* sector);
        /// Whether the sector is taken. `find` may take it without keeping it.
        bool (StructureFinder::*find)(const SweptSector& swept);
    };
    static constexpr Row rows[] = {
        // has a checksum over its block, which nothing else can have by chance
        { mayBeAPFSLeaf, &StructureFinder::findAPFSLeaf },
        // is nothing but entries; a boot sector's signature can stand among them
        { mayBeFATDirectory, &StructureFinder::findFATDirectory },
        // takes every sector that says "FILE": records end like boot sectors now and then
        { mayBeMFTRecord, &StructureFinder::findMFTRecord },
        // takes every sector that says "INDX", for the same reason
        { mayBeNTFSIndexBlock, &StructureFinder::findNTFSIndexBlock },
        // takes every sector with a boot sector's signature or name
        { mayBeBootSector, &StructureFinder::findBootSector },
        { mayBeExtSuperblock, &StructureFinder::findExtSuperblock },
        { mayBeHFSHeader, &StructureFinder::findHFSHeader },
        { mayBeHFSNode, &StructureFinder::findHFSNode },
        { mayBeAPFSSuperblock, &StructureFinder::findAPFSSuperblock },
        { mayBeAPFSVolume, &StructureFinder::findAPFSVolume },
        { mayBeAPFSObjectMap, &StructureFinder::findAPFSObjectMap },
        // costs the most, and its sectors pass for nothing above
        { mayBeExFATDirectory, &StructureFinder::findExFATDirectory },
        { mayBeExtJournal, &StructureFinder::findExtJournal },
        { mayBeExtNode, &StructureFinder::findExtNode },
        { mayBeExtFolderInode, &StructureFinder::findExtFolderInodes },
        // is nothing but numbers, which tables of other file systems are too
        { mayBeExtBlockList, &StructureFinder::findExtBlockList },
    };

    /// Asks row after row, written out by the compiler: a sweep asks millions of sectors.
    template <std::size_t... index>
    static void ask(
        StructureFinder& finder, const SweptSector& swept, std::index_sequence<index...> /*all*/)
    {
        const auto* const sector = swept.bytes.data();
        static_cast<void>(
            ((rows[index].mayBe(sector) && (finder.*rows[index].find)(swept)) || ...));
    }
};

void StructureFinder::look(const SweptSector& swept)
{
    StructureRows::ask(*this, swept, std::make_index_sequence<std::size(StructureRows::rows)>());
}

bool StructureFinder::isAPFSAligned(std::uint64_t offset) const
{
    return apfsAlignments_.contains(offset % apfsBlockSize);
}

bool StructureFinder::findAPFSLeaf(const SweptSector& swept)
{
    if (!isAPFSAligned(swept.offset))
        return false;
    const bool isLeaf = swept.bytes.size() >= apfsBlockSize
        ? APFSParser::looksLikeFSTreeLeaf(swept.bytes, 0, apfsBlockSize)
        : APFSParser::looksLikeFSTreeLeaf(
            source_.read(swept.offset, apfsBlockSize, ReadMode::thorough), 0, apfsBlockSize);
    if (isLeaf)
        result_.apfsLeafNodes.push_back(swept.offset);
    return isLeaf;
}

bool StructureFinder::findFATDirectory(const SweptSector& swept)
{
    const bool isDirectory = FATParser::looksLikeDirectorySector(swept.sector());
    if (isDirectory)
        result_.fatDirSectors.push_back(swept.offset);
    return isDirectory;
}

bool StructureFinder::findMFTRecord(const SweptSector& swept)
{
    if (NTFSParser::looksLikeRecord(swept.sector().sub(0, 48)))
        result_.mftRecords.push_back(swept.offset);
    return true;
}

bool StructureFinder::findNTFSIndexBlock(const SweptSector& swept)
{
    if (NTFSParser::sizeOfIndexBlock(swept.sector()))
        result_.ntfsIndexBlocks.push_back(swept.offset);
    return true;
}

bool StructureFinder::findBootSector(const SweptSector& swept)
{
    const auto sector = swept.sector();
    if (const auto type = FSProbe::detectBootSector(sector))
        result_.boots.push_back(
            { swept.offset, *type, *sector.load<std::array<std::uint8_t, SweptSector::size>>(0) });
    return true;
}

bool StructureFinder::findHFSHeader(const SweptSector& swept)
{
    if (swept.offset < hfsHeaderOffset || !HFSPlusParser::isVolumeHeader(swept.sector().sub(0, 64)))
        return false;
    result_.hfsHeaders.push_back(swept.offset - hfsHeaderOffset);
    return true;
}

bool StructureFinder::findHFSNode(const SweptSector& swept)
{
    const bool isTree = HFSPlusParser::looksLikeTreeHeader(swept.sector());
    if (isTree)
        result_.hfsTrees.push_back(swept.offset);
    const bool isLeaf = !isTree && HFSPlusParser::looksLikeCatalogLeaf(swept.sector());
    if (isLeaf)
        result_.hfsLeaves.push_back(swept.offset);
    return isTree || isLeaf;
}

bool StructureFinder::findExtSuperblock(const SweptSector& swept)
{
    if (!ExtParser::looksLikeSuperblock(swept.sector()))
        return false;
    result_.extSuperblocks.push_back(swept.offset);
    return true;
}

bool StructureFinder::findExtJournal(const SweptSector& swept)
{
    if (!ExtRemainders::looksLikeJournal(swept.sector()))
        return false;
    result_.extJournals.push_back(swept.offset);
    return true;
}

bool StructureFinder::findExtNode(const SweptSector& swept)
{
    if (!ExtLooseNodes::looksLikeNode(swept.sector()))
        return false;
    result_.extNodes.push_back(swept.offset);
    return true;
}

bool StructureFinder::findExtFolderInodes(const SweptSector& swept)
{
    bool isFound = false;
    constexpr auto size = ExtRemainders::leastSlot;
    for (std::int64_t at = 0; at < static_cast<std::int64_t>(SweptSector::size); at += size)
        if (ExtRemainders::looksLikeFolderInode(swept.sector().sub(at, size))) {
            result_.extFolderInodes.push_back(swept.offset + static_cast<std::uint64_t>(at));
            isFound = true;
        }
    return isFound;
}

bool StructureFinder::findExtBlockList(const SweptSector& swept)
{
    if (!ExtLooseLists::looksLikeList(swept.sector()))
        return false;
    result_.extBlockLists.push_back(swept.offset);
    return true;
}

bool StructureFinder::findAPFSSuperblock(const SweptSector& swept)
{
    if (!APFSParser::probe(swept.sector()))
        return false;
    result_.nxsb.push_back(swept.offset);
    apfsAlignments_.insert(swept.offset % apfsBlockSize);
    return true;
}

bool StructureFinder::findAPFSVolume(const SweptSector& swept)
{
    if (!swept.sector().matches("APSB", apfsMagicOffset))
        return false;
    result_.apfsVolumeSuperblocks.push_back(swept.offset);
    apfsAlignments_.insert(swept.offset % apfsBlockSize);
    return true;
}

bool StructureFinder::findAPFSObjectMap(const SweptSector& swept)
{
    result_.apfsObjectMaps.push_back(swept.offset);
    return true;
}

bool StructureFinder::findExFATDirectory(const SweptSector& swept)
{
    const bool isDirectory = ExFATParser::looksLikeDirectorySector(swept.bytes);
    if (isDirectory)
        result_.exfatDirSectors.push_back(swept.offset);
    return isDirectory;
}
