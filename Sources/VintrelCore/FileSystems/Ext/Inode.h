#pragma once

#include "VintrelCore/FileSystems/Ext/Geometry.h"
#include "VintrelCore/FileSystems/Ext/Structures.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"

#include <cstdint>
#include <optional>

/// One state of an inode.
struct ExtInode {
    /// `slot`: the bytes of its place in a table, as many as the geometry says.
    static ExtInode decode(const ExtGeometry& geometry, std::uint32_t number, ByteView slot);

    std::uint32_t number = 0;
    std::uint32_t generation = 0; ///< tells the files apart that had the number one after another
    std::uint32_t flags = 0;
    std::uint32_t deleted
        = 0; ///< seconds since 1970; 0: never, and unreliable where there are links
    std::uint16_t mode = 0;
    std::uint16_t links = 0;
    bool isSound = true;       ///< whether its checksum fits, or it has none
    std::uint64_t size = 0;    ///< in bytes
    std::uint64_t sectors = 0; ///< of 512 bytes, with those of its map
    std::uint64_t attributesBlock = 0;
    std::uint32_t changed = 0; ///< seconds since 1970
    std::optional<Date> created = {};
    std::optional<Date> modified = {};
    ExtFormat::InodeBlocks map {};

    bool isDirectory() const { return kind() == ExtFormat::directoryMode; }
    bool isFile() const { return kind() == ExtFormat::fileMode; }
    bool isLink() const { return kind() == ExtFormat::linkMode; }
    /// Whether it is of a kind that the format knows.
    bool hasKind() const;
    /// Whether something has its name, so that it is a file or folder now.
    bool isAlive() const { return links > 0 && hasKind(); }
    bool hasExtents() const { return (flags & ExtFormat::extentsFlag) != 0; }
    bool isInline() const { return (flags & ExtFormat::inlineFlag) != 0; }
    /// Whether the text of a symbolic link lies in the map.
    bool isFastLink() const;

    std::uint16_t kind() const { return mode & ExtFormat::modeMask; }
};

namespace ExtInodes {

/// What the checksums of the inode and of its own blocks begin with.
std::uint32_t seedOf(const ExtGeometry& geometry, std::uint32_t number, std::uint32_t generation);

/// What the inode's checksum has been made from, if it fits: the seed of its volume. Inodes of one
/// volume lead to the same. None where the slot has no room for a whole checksum.
std::optional<std::uint32_t> volumeSeedOf(
    const ExtGeometry& geometry, std::uint32_t number, ByteView slot);

/// The number of the inode, by its checksum, if the volume's seed is that of the geometry. Other
/// bytes lead to any number. None where the slot has no room for a whole checksum.
std::optional<std::uint32_t> numberOf(const ExtGeometry& geometry, ByteView slot);

/// The content that the slot of an inode keeps in itself, up to the inode's size.
Bytes inlineContent(const ExtInode& inode, ByteView slot);

} // namespace ExtInodes
