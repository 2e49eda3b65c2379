#pragma once

#include "VintrelCore/FileSystems/Ext/Geometry.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/// Entries of directories.
namespace ExtDirectory {

struct Entry {
    std::uint32_t inode = 0;
    std::string_view name; ///< lies in the block
    std::uint8_t type = 0;
    bool isDeleted = false; ///< lies where its block says that nothing does
};
using Visit = std::function<void(const Entry& entry)>;

/// Visits the entries of a block besides "." and "..". A hashed directory has no others: its inner
/// blocks look empty. False when the block breaks off, which what was visited remains true of.
bool forEachEntry(const ExtGeometry& geometry, ByteView block, const Visit& visit);

/// The number of the folder above, as the first block of a directory says; 0 when this is none.
std::uint32_t parentIn(ByteView block);
/// The number of the directory itself, likewise.
std::uint32_t selfIn(ByteView block);

/// Whether the checksum at the block's end fits the directory. None has no checksum there: it has
/// an inner part of a hashed directory in it, or is no block of a directory.
bool fits(
    const ExtGeometry& geometry, ByteView block, std::uint32_t number, std::uint32_t generation);

} // namespace ExtDirectory
