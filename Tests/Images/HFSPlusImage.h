#pragma once

#include "Tests/Images/DiskImage.h"

#include <string>
#include <vector>

/// Builds an HFS+ volume in memory from lists of records: which leaf node of the catalog each lies
/// in is the test's choice, and so are the nodes that the tree has given up.
class HFSPlusImage : public DiskImage {
public:
    struct Extent {
        std::uint32_t start, count;
    };

    struct Record {
        std::uint32_t parent;
        std::u16string name;
        std::uint32_t id;
        bool isFolder = false;
        std::uint32_t modified = 0xE0000000; ///< 2023
        std::uint64_t size = 0;
        std::vector<Extent> runs = {};
        std::uint64_t resourceSize = 0;
        std::vector<Extent> resourceRuns = {};
        std::string finderInfo = {};
        std::uint8_t ownerFlags = 0;
        std::uint32_t linkTo = 0; ///< not 0: a hard link to this iNode file, or to this folder
        bool isFolderLink = false;
    };

    /// At most 16,384 blocks, of which the metadata files lie in the first 96.
    explicit HFSPlusImage(bool isHFSX = false, std::uint32_t blocks = 400);

    /// Puts the records into a leaf node of the catalog, from 2 on, and with them the thread
    /// records of some, which other systems want to see.
    void setLeaf(std::uint32_t node, const std::vector<Record>& records,
        const std::vector<Record>& threads = {});
    /// Chains the leaves that are part of the tree, and lists them in the index node, number 1.
    void chain(const std::vector<std::uint8_t>& nodes);
    /// Says in the header node what sound trees say: which leaf is the last one, how many records
    /// the leaves hold, and in its map record that these, the index and itself are in use.
    void stateLeaves(const std::vector<std::uint8_t>& nodes);
    void addOverflow(std::uint32_t fileID, std::uint32_t startBlock,
        const std::vector<Extent>& extents, bool isResourceFork = false);
    struct Attribute {
        std::uint32_t fileID;
        std::u16string name;
        Bytes content = {};
        std::uint64_t size = 0; ///< not 0: the content lies in extents
        std::vector<Extent> runs = {};
        std::uint32_t startBlock = 0; ///< not 0: these are further extents
    };
    /// Makes these the records of a leaf node of the attributes file, of which number 1 alone is
    /// part of the tree.
    void setAttributes(const std::vector<Attribute>& attributes, std::uint32_t node = 1);

    /// Blocks are free until they are said to be in use.
    void setAllocated(std::uint32_t block);

    static constexpr std::uint64_t blockSize = 512;
    static constexpr std::uint64_t nodeSize = 1024;
    static constexpr std::uint32_t allocationBlock = 3; ///< right behind the header
    static constexpr std::uint64_t offsetOf(std::uint32_t block) { return block * blockSize; }
    static constexpr std::uint64_t attributesOffset(std::uint32_t node)
    {
        return offsetOf(attributesBlock) + node * nodeSize;
    }
    static constexpr std::uint64_t nodeOffset(std::uint32_t node)
    {
        return offsetOf(catalogBlock) + node * nodeSize;
    }

private:
    static constexpr std::uint32_t extentsBlock = 8;
    static constexpr std::uint32_t catalogBlock = 16;
    static constexpr std::uint32_t attributesBlock = 48;

    void writeNode(std::uint64_t at, std::uint8_t kind, const std::vector<Bytes>& records);

    std::vector<Bytes> overflow_;
};
