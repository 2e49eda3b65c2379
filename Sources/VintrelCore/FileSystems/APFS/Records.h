#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// What leaves of a file-system tree say of files, from any number of leaves in any order. Of a
/// tree's old states the same record may come in several versions. Used by one thread at a time.
class APFSFileRecords {
public:
    /// A piece of text that the records keep.
    struct Text {
        std::uint64_t at = 0;
        std::uint16_t length = 0;
    };

    /// Which version of a leaf a record is from.
    struct LeafVersion {
        std::uint64_t xid = 0; ///< the transaction that wrote it
        /// Nothing that it names is given up as long as the snapshot is there.
        bool isHeldBySnapshot = false;
        /// It steps in for a newer one that cannot be read.
        bool isStandIn = false;
    };

    /// Says by the object that a record is about and by its key whether it is kept.
    using IsWanted = std::function<bool(std::uint64_t id, ByteView key)>;

    struct Inode {
        std::uint64_t id = 0;
        LeafVersion leaf;
        std::uint64_t parent = 0;
        std::uint64_t privateID = 0; ///< the extents' owner
        std::uint64_t size = 0;
        std::uint64_t created = 0; ///< as stored
        std::uint64_t modified = 0;
        std::uint64_t changed = 0;
        Text name; ///< the one that it was given last; a hard link has others
        std::uint16_t mode = 0;
        bool isSparse = false;
        bool isCompressed = false;
        bool isCloned = false;   ///< it may share its blocks with other files
        bool isDataless = false; ///< the content is in the cloud alone

        bool isFolder() const;
        bool isSymlink() const;
    };

    /// A name in a folder.
    struct Link {
        std::uint64_t id = 0; ///< of the file or folder
        LeafVersion leaf;
        std::uint64_t parent = 0;
        Text name;
        bool isFolder = false;
        bool isSibling = false; ///< from the file's list of its names; otherwise from the folder
    };

    struct Extent {
        std::uint64_t owner = 0;
        LeafVersion leaf;
        std::uint64_t logical = 0; ///< byte of the file
        std::uint64_t length = 0;  ///< in bytes
        std::uint64_t block = 0;   ///< 0: hole
    };

    /// An extended attribute. Some tell of a file's content.
    struct Attribute {
        enum class Kind { symlink, compression, resourceFork, other };

        std::uint64_t id = 0;
        LeafVersion leaf;
        Kind kind {};
        std::uint64_t size = 0;     ///< of the file without compression; else of the content
        Text content;               ///< the link's target, or as it is stored in the record
        std::uint64_t streamID = 0; ///< the owner of the extents that have it; 0: the record has it
        Text name {};               ///< of `other`
    };

    /// Asks for the memory of so many leaves at once. It takes about as much as they do.
    void reserve(std::size_t leaves, std::uint64_t blockSize);

    /// Adds the records of a leaf that are wanted, all of them without `isWanted`.
    /// `isHashed`: its directory records have the hash of the name beside the name's length.
    void addLeaf(ByteView node, std::uint64_t blockSize, bool isHashed, LeafVersion leaf,
        const IsWanted& isWanted = {});

    /// Makes the records ready for being looked up: by what they belong to, the newest version
    /// first, and of inodes and attributes the newest alone.
    void sort();

    const std::vector<Inode>& inodes() const { return inodes_; }
    const std::vector<Link>& links() const { return links_; }
    const std::vector<Extent>& extents() const { return extents_; }

    /// None when the number is not known.
    const Inode* inode(std::uint64_t id) const;
    const Attribute* attribute(std::uint64_t id, Attribute::Kind kind) const;
    std::span<const Attribute> attributesOf(std::uint64_t id) const;
    std::span<const Link> linksOf(std::uint64_t id) const;
    /// By logical address.
    std::span<const Extent> extentsOf(std::uint64_t owner) const;
    std::string_view text(Text text) const
    {
        return std::string_view(texts_).substr(text.at, text.length);
    }

private:
    Text keep(ByteView text);
    Text keepBytes(ByteView bytes);
    void addRecord(ByteView key, ByteView value, bool isHashed, LeafVersion leaf);
    void addInode(std::uint64_t id, ByteView value, LeafVersion leaf);
    void addExtendedFields(Inode& inode, ByteView value);
    void addAttribute(std::uint64_t id, ByteView key, ByteView value, LeafVersion leaf);
    void addSiblingLink(std::uint64_t id, ByteView value, LeafVersion leaf);
    void addExtent(std::uint64_t id, ByteView key, ByteView value, LeafVersion leaf);
    void addDirectoryEntry(
        std::uint64_t parent, ByteView key, ByteView value, bool isHashed, LeafVersion leaf);

    std::vector<Inode> inodes_;
    std::vector<Link> links_;
    std::vector<Extent> extents_;
    std::vector<Attribute> attributes_;
    std::string texts_;
};
