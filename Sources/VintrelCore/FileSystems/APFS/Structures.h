#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// APFS as it lies on disk. Everything is little-endian. The layout is that of Apple's "Apple File
/// System Reference" (2020-06-22); each structure says its name there.
namespace APFSFormat {

/// Every object begins with this: obj_phys_t. Physical objects have the number of their block for
/// an oid, virtual ones are found by object maps, and ephemeral ones by the checkpoint maps.
struct ObjectHeader {
    LE64 checksum; //  0  Fletcher-64 of what follows it
    LE64 oid, xid; //  8, 16
    LE32 type;     // 24  the low half; the high half tells how the object is stored
    LE32 subtype;  // 28  of a B-tree: what it holds
};
static_assert(sizeof(ObjectHeader) == 32 && offsetof(ObjectHeader, subtype) == 28);

namespace ObjectType {
constexpr std::uint16_t containerSuperblock = 1;
constexpr std::uint16_t rootNode = 2; ///< of a B-tree
constexpr std::uint16_t node = 3;
constexpr std::uint16_t spaceManager = 5;
constexpr std::uint16_t chunkAddresses = 6;
constexpr std::uint16_t chunkInfo = 7;
constexpr std::uint16_t freeQueue = 9; ///< only as a subtype
constexpr std::uint16_t objectMap = 11;
constexpr std::uint16_t checkpointMap = 12;
constexpr std::uint16_t volumeSuperblock = 13;
constexpr std::uint16_t fileSystemTree = 14; ///< only as a subtype
} // namespace ObjectType

/// The low half of the type field.
inline std::uint16_t typeOf(const ObjectHeader& header)
{
    return static_cast<std::uint16_t>(header.type);
}

/// A node of a B-tree: btree_node_phys_t. The table of contents, keys and values follow.
struct NodeHeader {
    ObjectHeader object;           //  0
    LE16 flags;                    // 32
    LE16 level;                    // 34  0: leaf
    LE32 keyCount;                 // 36
    LE16 tableOffset, tableLength; // 40, 42  of the table of contents, from the end of this header
    LE32 freeSpace;                // 44
    LE32 freeKeys, freeValues;     // 48, 52
};
static_assert(sizeof(NodeHeader) == 56 && offsetof(NodeHeader, tableOffset) == 40);

namespace NodeFlag {
constexpr std::uint16_t root = 1;
constexpr std::uint16_t leaf = 2;
constexpr std::uint16_t fixedSize = 4; ///< of keys and values
} // namespace NodeFlag

constexpr std::uint32_t maxKeys = 9999; ///< that a node is believed to have

/// An entry of the table of contents where keys and values have lengths of their own: kvloc_t.
struct TableEntry {
    LE16 keyOffset, keyLength;     // 0, 2
    LE16 valueOffset, valueLength; // 4, 6
};
/// And where all of them are as long as each other: kvoff_t.
struct FixedTableEntry {
    LE16 keyOffset, valueOffset; // 0, 2
};
static_assert(sizeof(TableEntry) == 8 && sizeof(FixedTableEntry) == 4);

constexpr std::uint16_t noValue = 0xFFFF;   ///< as a value's offset
constexpr std::int64_t treeFooterSize = 40; ///< btree_info_t, at the end of a root
constexpr std::int64_t indexValueSize = 8;  ///< where lengths are fixed

/// The value of an index node's entry: the child's block, or its oid where nodes are virtual.
struct IndexValue {
    LE64 child; // 0
};
static_assert(sizeof(IndexValue) == 8);

/// omap_phys_t.
struct ObjectMap {
    ObjectHeader object;           //  0
    LE32 flags, snapshotCount;     // 32, 36
    LE32 treeType, snapshotType;   // 40, 44
    LE64 treeOID, snapshotTreeOID; // 48, 56  physical
};
static_assert(sizeof(ObjectMap) == 64 && offsetof(ObjectMap, treeOID) == 48);

/// omap_key_t.
struct ObjectMapKey {
    LE64 oid, xid; // 0, 8
};
/// omap_val_t.
struct ObjectMapValue {
    LE32 flags, size; // 0, 4
    LE64 block;       // 8
};
static_assert(sizeof(ObjectMapKey) == 16 && sizeof(ObjectMapValue) == 16);

/// The flags of an object map's value that say the object is deleted. The reference defines the
/// lower one; the other one is met too.
constexpr std::uint32_t deletedMask = 3;

constexpr std::size_t maxVolumeSlots = 100;

/// nx_superblock_t, as far as it is used.
struct ContainerSuperblock {
    ObjectHeader object;                   //   0
    std::array<char, 4> magic;             //  32  "NXSB"
    LE32 blockSize;                        //  36  in bytes
    LE64 blockCount;                       //  40
    std::array<std::uint8_t, 24> features; //  48
    std::array<std::uint8_t, 16> uuid;     //  72
    LE64 nextOID, nextXID;                 //  88, 96
    LE32 descriptorBlocks, dataBlocks;     // 104, 108  of the checkpoint areas
    LE64 descriptorBase, dataBase;         // 112, 120
    LE32 descriptorNext, dataNext;         // 128, 132
    LE32 descriptorIndex,
        descriptorLength;       // 136, 140  of this checkpoint; its superblock is the last
    LE32 dataIndex, dataLength; // 144, 148
    LE64 spaceManagerOID;       // 152  ephemeral
    LE64 objectMapOID;          // 160
    LE64 reaperOID;             // 168
    LE32 testType;              // 176
    LE32 maxFileSystems;        // 180
    std::array<LE64, maxVolumeSlots> fileSystemOIDs; // 184  virtual; 0: no volume
};
static_assert(sizeof(ContainerSuperblock) == 984 && offsetof(ContainerSuperblock, uuid) == 72
    && offsetof(ContainerSuperblock, descriptorIndex) == 136
    && offsetof(ContainerSuperblock, objectMapOID) == 160);

constexpr std::uint32_t nonContiguous
    = 0x80000000; // of descriptorBlocks: they are listed in a tree
constexpr std::uint32_t maxDescriptorBlocks = 10'000;

/// A block of the checkpoint descriptor area that says where ephemeral objects lie:
/// checkpoint_map_phys_t.
struct CheckpointMap {
    ObjectHeader object; //  0
    LE32 flags, count;   // 32, 36  mappings follow
};
static_assert(sizeof(CheckpointMap) == 40);

/// checkpoint_mapping_t.
struct CheckpointMapping {
    LE32 type, subtype; //  0, 4
    LE32 size, pad;     //  8, 12  in bytes
    LE64 volumeOID;     // 16
    LE64 oid, block;    // 24, 32
};
static_assert(sizeof(CheckpointMapping) == 40);

/// One device of the space manager; there are two, the second of which Fusion drives have:
/// spaceman_device_t.
struct SpaceManagerDevice {
    LE64 blockCount, chunkCount;    //  0, 8
    LE32 infoBlocks, addressBlocks; // 16, 20  addressBlocks 0: the addresses of the chunk-info
                                    // blocks stand inline
    LE64 freeBlocks;                // 24
    LE32 addressOffset, reserved;   // 32, 36  in the space manager
    LE64 reserved2;                 // 40
};
static_assert(sizeof(SpaceManagerDevice) == 48);

/// spaceman_free_queue_t.
struct FreeQueue {
    LE64 count, treeOID, oldestXID; //  0, 8, 16  the tree is ephemeral
    LE64 nodeLimit, reserved;       // 24, 32
};
static_assert(sizeof(FreeQueue) == 40);

/// The key of an entry of such a queue: spaceman_free_queue_key_t.
struct FreeQueueKey {
    LE64 xid, block; // 0, 8
};
/// Its value. A single block is kept without one.
struct FreeQueueValue {
    LE64 blockCount; // 0
};
static_assert(sizeof(FreeQueueKey) == 16 && sizeof(FreeQueueValue) == 8);

/// spaceman_phys_t.
struct SpaceManager {
    ObjectHeader object;                       //   0
    LE32 blockSize, blocksPerChunk;            //  32, 36
    LE32 chunksPerInfo, infosPerAddress;       //  40, 44
    std::array<SpaceManagerDevice, 2> devices; //  48
    std::array<std::uint8_t, 56> internalPool; // 144
    std::array<FreeQueue, 3> freeQueues;       // 200  internal pool, main device, second device
};
static_assert(sizeof(SpaceManager) == 320 && offsetof(SpaceManager, freeQueues) == 200);

/// The head of chunk-info and chunk-address blocks: chunk_info_block_t and cib_addr_block_t.
struct ChunkBlock {
    ObjectHeader object; //  0
    LE32 index, count;   // 32, 36  entries follow
};
static_assert(sizeof(ChunkBlock) == 40);

/// chunk_info_t.
struct ChunkInfo {
    LE64 xid, firstBlock;       //  0, 8
    LE32 blockCount, freeCount; // 16, 20
    LE64 bitmapBlock;           // 24  0: all free. Bits set are blocks in use, the lowest bit first
};
static_assert(sizeof(ChunkInfo) == 32);

/// apfs_superblock_t, as far as it is used.
struct VolumeSuperblock {
    ObjectHeader object;                     //    0
    std::array<char, 4> magic;               //   32  "APSB"
    LE32 slot;                               //   36
    LE64 features, readOnlyFeatures;         //   40, 48
    LE64 incompatibleFeatures;               //   56
    std::array<std::uint8_t, 64> counts;     //   64
    LE64 objectMapOID;                       //  128
    LE64 rootTreeOID;                        //  136  virtual
    LE64 extentTreeOID, snapshotTreeOID;     //  144, 152  physical
    LE64 revertXID, revertSuperblock;        //  160, 168
    LE64 nextObjectID;                       //  176
    std::array<std::uint8_t, 32> fileCounts; //  184
    LE64 snapshotCount;                      //  216
    LE64 allocatedBlocks, freedBlocks;       //  224, 232
    std::array<std::uint8_t, 16> uuid;       //  240
    LE64 lastModified;                       //  256
    LE64 flags;                              //  264
    std::array<std::uint8_t, 32> maker;      //  272  the program that formatted it
    LE64 formatted, formattedXID;            //  304, 312  when
    std::array<std::uint8_t, 384> changers;  //  320  programs that changed it
    std::array<char, 256> name;              //  704
    LE32 nextDocumentID;                     //  960
    LE16 role;                               //  964
    LE16 reserved;                           //  966
};
static_assert(sizeof(VolumeSuperblock) == 968 && offsetof(VolumeSuperblock, nextObjectID) == 176
    && offsetof(VolumeSuperblock, flags) == 264 && offsetof(VolumeSuperblock, formatted) == 304
    && offsetof(VolumeSuperblock, name) == 704);

/// Whether the magic of a volume's superblock is right.
inline bool isVolumeSuperblock(const VolumeSuperblock& superblock)
{
    return superblock.magic == std::array { 'A', 'P', 'S', 'B' };
}

constexpr std::uint64_t unencryptedFlag = 1; ///< of flags

namespace IncompatibleFeature {
constexpr std::uint64_t caseInsensitive = 0x01;
constexpr std::uint64_t normalizationInsensitive = 0x08;
constexpr std::uint64_t sealed = 0x20;
} // namespace IncompatibleFeature

/// The keys of a file-system tree begin with the number of the object and, in the highest four
/// bits, the kind of record: j_key_t.
struct RecordKey {
    LE64 idAndKind; // 0
};
static_assert(sizeof(RecordKey) == 8);

constexpr std::uint64_t objectIDMask = 0x0FFF'FFFF'FFFF'FFFF;
constexpr int recordKindShift = 60;

namespace RecordKind {
constexpr std::uint64_t snapshot = 1; ///< in the tree of snapshots
constexpr std::uint64_t inode = 3;
constexpr std::uint64_t attribute = 4;
constexpr std::uint64_t siblingLink = 5;
constexpr std::uint64_t fileExtent = 8;
constexpr std::uint64_t directoryRecord = 9;
} // namespace RecordKind

constexpr std::uint64_t rootParentID = 1;
constexpr std::uint64_t rootFolderID = 2;
constexpr std::uint64_t privateFolderID
    = 3;                                  ///< files that are deleted but still open; not the user's
constexpr std::uint64_t firstUserID = 16; ///< lower numbers are the file system's own

/// The value of an inode record, j_inode_val_t; extended fields follow.
struct InodeValue {
    LE64 parentID, privateID;                  //  0, 8  the extents are kept under the latter
    LE64 created, modified, changed, accessed; // 16, 24, 32, 40
    LE64 internalFlags;                        // 48
    LE32 linkCount, protectionClass;           // 56, 60
    LE32 writeCount, bsdFlags;                 // 64, 68
    LE32 owner, group;                         // 72, 76
    LE16 mode, pad;                            // 80, 82
    LE64 uncompressedSize;                     // 84
};
static_assert(sizeof(InodeValue) == 92 && offsetof(InodeValue, uncompressedSize) == 84);

constexpr std::uint64_t clonedFlags = 0x410;               // of internalFlags: now, and ever
constexpr std::uint64_t sparseFlag = 0x200;                // of internalFlags
constexpr std::uint64_t hasUncompressedSizeFlag = 0x40000; // of internalFlags
constexpr std::uint32_t compressedFlag = 0x20;             // of bsdFlags
/// Of bsdFlags. The reference leaves it out: it is SF_DATALESS of macOS' stat().
constexpr std::uint32_t datalessFlag = 0x40000000;

constexpr std::uint16_t modeMask = 0xF000;
constexpr std::uint16_t folderMode = 0x4000;
constexpr std::uint16_t symlinkMode = 0xA000;

/// Extended fields, xf_blob_t: this, one `ExtendedField` for each, then their data, each from a
/// multiple of eight bytes on.
struct ExtendedFields {
    LE16 count, used; // 0, 2
};
/// x_field_t.
struct ExtendedField {
    std::uint8_t type, flags; // 0, 1
    LE16 size;                // 2
};
static_assert(sizeof(ExtendedFields) == 4 && sizeof(ExtendedField) == 4);

namespace FieldType {
constexpr std::uint8_t name = 4;
constexpr std::uint8_t dataStream = 8; ///< begins with the size of the content
constexpr std::uint8_t sparseBytes = 13;
} // namespace FieldType

/// The content of a file: j_dstream_t, which is the field of that type.
struct DataStream {
    LE64 size, allocatedSize;     //  0, 8  in bytes
    LE64 cryptoID;                // 16
    LE64 bytesWritten, bytesRead; // 24, 32
};
static_assert(sizeof(DataStream) == 40);

/// j_file_extent_key_t.
struct FileExtentKey {
    RecordKey record; // 0
    LE64 logical;     // 8  byte of the file
};
static_assert(sizeof(FileExtentKey) == 16);

/// j_file_extent_val_t.
struct FileExtentValue {
    LE64 lengthAndFlags; //  0  bytes, in the low 56 bits
    LE64 block;          //  8  0: hole
    LE64 cryptoID;       // 16
};
static_assert(sizeof(FileExtentValue) == 24);

constexpr std::uint64_t extentLengthMask = 0x00FF'FFFF'FFFF'FFFF;

/// j_drec_key_t; the name follows, with a zero byte behind it.
struct DirectoryKey {
    RecordKey record; // 0
    LE16 nameLength;  // 8  in bytes, the zero byte included
};
/// j_drec_hashed_key_t, of volumes that ignore case or forms of characters.
struct HashedDirectoryKey {
    RecordKey record;       // 0
    LE32 nameLengthAndHash; // 8
};
static_assert(sizeof(DirectoryKey) == 10 && sizeof(HashedDirectoryKey) == 12);

constexpr std::uint32_t nameLengthMask = 0x3FF; ///< the hash is above it

/// j_drec_val_t.
struct DirectoryValue {
    LE64 fileID, added; // 0, 8
    LE16 flags;         // 16  the low four bits are the kind of file
};
static_assert(sizeof(DirectoryValue) == 18);

constexpr std::uint16_t entryKindMask = 15; ///< of a directory record's flags
constexpr std::uint16_t folderKind = 4;

/// The value of a sibling link, j_sibling_val_t; the name follows.
struct SiblingValue {
    LE64 parentID;   // 0
    LE16 nameLength; // 8
};
static_assert(sizeof(SiblingValue) == 10);

/// j_xattr_key_t; the name follows, with a zero byte behind it.
struct AttributeKey {
    RecordKey record; // 0
    LE16 nameLength;  // 8
};
static_assert(sizeof(AttributeKey) == 10);

/// j_xattr_val_t.
struct AttributeValue {
    LE16 flags, length; // 0, 2  the content, or where it is, follows
};
static_assert(sizeof(AttributeValue) == 4);

/// The value of a snapshot's record, j_snap_metadata_val_t; the name follows. The number in the
/// record's key is the transaction.
struct SnapshotValue {
    LE64 extentTree, superblock; //  0, 8  blocks
    LE64 created, changed;       // 16, 24
    LE64 inode;                  // 32
    LE32 extentTreeType, flags;  // 40, 44
    LE16 nameLength;             // 48
};
static_assert(sizeof(SnapshotValue) == 50);

constexpr std::uint16_t embeddedFlag = 2; ///< of an attribute: the content follows

constexpr std::uint16_t streamFlag = 1; ///< of an attribute: an `AttributeStream` follows

/// j_xattr_dstream_t, as far as it is used.
struct AttributeStream {
    LE64 owner, size; // 0, 8  the extents' owner, and bytes
};
static_assert(sizeof(AttributeStream) == 16);

} // namespace APFSFormat
