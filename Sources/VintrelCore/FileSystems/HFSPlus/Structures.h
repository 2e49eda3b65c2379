#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// HFS+ and HFSX as they lie on disk. Everything is big-endian. The layout is that of Apple's
/// "Technical Note TN1150: HFS Plus Volume Format"; each structure says its name there.
namespace HFSPlusFormat {

/// Allocation blocks in a row. TN1150: HFSPlusExtentDescriptor.
struct ExtentDescriptor {
    BE32 startBlock, blockCount; // 0, 4  count 0: not used
};

constexpr std::size_t extentsPerRecord = 8; ///< TN1150: HFSPlusExtentRecord

/// TN1150: HFSPlusForkData.
struct ForkData {
    BE64 logicalSize;            //  0  in bytes
    BE32 clumpSize, totalBlocks; //  8, 12
    std::array<ExtentDescriptor, extentsPerRecord>
        extents; // 16  the first ones; the extents overflow file has the rest
};
static_assert(sizeof(ForkData) == 80 && offsetof(ForkData, extents) == 16);

/// What tells a volume header and the volume's size. TN1150: HFSPlusVolumeHeader, its first fields.
struct VolumeHeaderStart {
    BE16 signature, version;           //  0, 2  "H+" 4, or "HX" 5 for HFSX
    std::array<std::uint8_t, 36> more; //  4
    BE32 blockSize;                    // 40  in bytes
    BE32 totalBlocks;                  // 44
};
static_assert(sizeof(VolumeHeaderStart) == 48 && offsetof(VolumeHeaderStart, blockSize) == 40);

/// TN1150: HFSPlusVolumeHeader.
struct VolumeHeader {
    VolumeHeaderStart start;           //   0
    std::array<std::uint8_t, 64> rest; //  48
    ForkData allocationFile;           // 112
    ForkData extentsFile;              // 192
    ForkData catalogFile;              // 272
    ForkData attributesFile;           // 352
    ForkData startupFile;              // 432
};
static_assert(sizeof(VolumeHeader) == 512 && offsetof(VolumeHeader, allocationFile) == 112
    && offsetof(VolumeHeader, catalogFile) == 272);

constexpr std::uint64_t volumeHeaderOffset = 1024;     ///< from the volume's start
constexpr std::uint64_t alternateHeaderFromEnd = 1024; ///< from its start to the volume's end
constexpr std::uint16_t signatureHFSPlus = 0x482B;     // "H+"
constexpr std::uint16_t signatureHFSX = 0x4858;        // "HX"
constexpr std::uint16_t versionHFSPlus = 4;
constexpr std::uint16_t versionHFSX = 5;

/// Every node of a B-tree begins with this. TN1150: BTNodeDescriptor.
struct NodeDescriptor {
    BE32 next, previous; //  0, 4  nodes of the same level; 0: none
    std::uint8_t kind;   //  8
    std::uint8_t height; //  9
    BE16 recordCount;    // 10
    BE16 reserved;       // 12
};
static_assert(sizeof(NodeDescriptor) == 14);

constexpr std::uint8_t leafKind = 0xFF;
constexpr std::uint8_t indexKind = 0x00;
constexpr std::uint8_t headerKind = 0x01;
constexpr std::uint8_t mapKind = 0x02;

constexpr std::uint32_t minNodeSize = 512;
constexpr std::uint32_t maxNodeSize = 32'768;

/// Node 0. TN1150: BTHeaderRec, behind the node's descriptor.
struct HeaderNode {
    NodeDescriptor descriptor; //  0
    BE16 depth;                // 14
    BE32 rootNode;             // 16
    BE32 leafRecords;          // 20
    BE32 firstLeafNode;        // 24
    BE32 lastLeafNode;         // 28
    BE16 nodeSize;             // 32  in bytes
    BE16 maxKeyLength;         // 34
    BE32 totalNodes;           // 36
};
static_assert(sizeof(HeaderNode) == 40 && offsetof(HeaderNode, firstLeafNode) == 24);

/// What every record of an index or leaf node begins with. TN1150: BTreeKey.
struct RecordKey {
    BE16 length; // 0  without itself
};
static_assert(sizeof(RecordKey) == 2);

/// The data of an index node's record. TN1150 calls it a pointer record.
struct IndexPointer {
    BE32 childNode; // 0
};
static_assert(sizeof(IndexPointer) == 4);

/// The key of a record of the extents overflow file; extent descriptors follow. TN1150:
/// HFSPlusExtentKey.
struct OverflowKey {
    RecordKey key;         //  0
    std::uint8_t forkType; //  2
    std::uint8_t pad;      //  3
    BE32 fileID;           //  4
    BE32 startBlock;       //  8  of the file, where these extents begin
};
static_assert(sizeof(OverflowKey) == 12);

constexpr std::uint16_t overflowKeyLength = 10;
constexpr std::uint16_t maxCatalogKeyLength = 516; ///< TN1150: kHFSPlusCatalogKeyMaximumLength
/// Of a key's fork type.
enum class Fork : std::uint8_t { data = 0, resource = 0xFF };

/// The start of a catalog record's key; `nameLength` UTF-16 units follow. TN1150:
/// HFSPlusCatalogKey.
struct CatalogKey {
    RecordKey key;   // 0
    BE32 parentID;   // 2
    BE16 nameLength; // 6
};
static_assert(sizeof(CatalogKey) == 8);

constexpr std::uint32_t minCatalogKeyLength = 6; ///< parent and an empty name
constexpr std::uint32_t maxNameLength = 255;     ///< in UTF-16 units

/// What folder and file records have in common. TN1150: HFSPlusCatalogFolder and
/// HFSPlusCatalogFile, whose first fields are alike.
struct CatalogItem {
    BE16 type;                         //  0
    std::array<std::uint8_t, 6> flags; //  2  and valence or reserved
    BE32 id;                           //  8
    BE32 created, modified;            // 12, 16
    std::array<std::uint8_t, 21> more; // 20  other dates, owner
    std::uint8_t ownerFlags;           // 41
    BE16 mode;                         // 42
    BE32 special;                      // 44  of a hard link: the number of its iNode file
};
static_assert(sizeof(CatalogItem) == 48 && offsetof(CatalogItem, ownerFlags) == 41);

/// TN1150: HFSPlusCatalogFile.
struct CatalogFile {
    CatalogItem item;                  //   0
    BE32 fileType, fileCreator;        //  48, 52  here the Finder's information begins
    std::array<std::uint8_t, 32> more; //  56
    ForkData dataFork;                 //  88
    ForkData resourceFork;             // 168
};
static_assert(sizeof(CatalogFile) == 248 && offsetof(CatalogFile, dataFork) == 88);

constexpr std::size_t finderInfoOffset = 48; ///< in the records of files and folders
constexpr std::size_t finderInfoSize = 32;

constexpr std::uint16_t folderType = 1;
constexpr std::uint16_t fileType = 2;
constexpr std::uint16_t folderThreadType = 3;
constexpr std::uint16_t fileThreadType = 4;
constexpr std::size_t folderRecordSize = 88; ///< TN1150: HFSPlusCatalogFolder
/// Of the owner flags. TN1150 is older than compressed files and does not know it: it is
/// UF_COMPRESSED of macOS' stat().
constexpr std::uint8_t compressedFlag = 0x20;
constexpr std::uint32_t hardLinkType = 0x686C6E6B;    // "hlnk"
constexpr std::uint32_t hardLinkCreator = 0x6866732B; // "hfs+"

/// Of a hard link to a folder. TN1150 is older than these: they are an alias file's type and
/// creator, and Time Machine makes them.
constexpr std::uint32_t folderLinkType = 0x66647270;    // "fdrp"
constexpr std::uint32_t folderLinkCreator = 0x4D414353; // "MACS"

/// The key of a record of the attributes file; the name's UTF-16 units follow. TN1150 has the file
/// and its records, and not yet this key: it is that of HFSPlusAttrKey in macOS' hfs_format.h.
struct AttributeKey {
    RecordKey key;   //  0
    BE16 pad;        //  2
    BE32 fileID;     //  4
    BE32 startBlock; //  8  of an attribute in extents, where these begin
    BE16 nameLength; // 12
};
static_assert(sizeof(AttributeKey) == 14);

constexpr std::uint32_t minAttributeKeyLength = 12; ///< with an empty name
constexpr std::uint32_t maxAttributeNameLength = 127;

/// An attribute whose content follows. HFSPlusAttrData of hfs_format.h.
struct AttributeData {
    BE32 type;                            //  0
    std::array<std::uint8_t, 8> reserved; //  4
    BE32 size;                            // 12  in bytes
};
static_assert(sizeof(AttributeData) == 16);

/// An attribute that has extents of its own. TN1150: HFSPlusAttrForkData.
struct AttributeFork {
    BE32 type, reserved; // 0, 4
    ForkData fork;       // 8
};
static_assert(sizeof(AttributeFork) == 88);

/// Further extents of one. TN1150: HFSPlusAttrExtents.
struct AttributeExtents {
    BE32 type, reserved;                                    // 0, 4
    std::array<ExtentDescriptor, extentsPerRecord> extents; // 8
};
static_assert(sizeof(AttributeExtents) == 72);

constexpr std::uint32_t attributeDataType = 0x10;
constexpr std::uint32_t attributeForkType = 0x20;
constexpr std::uint32_t attributeExtentsType = 0x30;

constexpr std::uint32_t rootFolderID = 2;
constexpr std::uint32_t extentsFileID = 3;
constexpr std::uint32_t catalogFileID = 4;
constexpr std::uint32_t allocationFileID = 6;
constexpr std::uint32_t attributesFileID = 8;

} // namespace HFSPlusFormat
