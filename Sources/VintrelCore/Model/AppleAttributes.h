#pragma once

#include <cstdint>
#include <string_view>

class FileNode;

/// What HFS+ and APFS have in common of what they keep beside a file's content.
namespace AppleAttributes {

constexpr std::string_view compression = "com.apple.decmpfs";
constexpr std::string_view finderInfo = "com.apple.FinderInfo";

/// Whether an attribute is the system's own, which no program sees or can set: access control lists
/// above all.
bool isHidden(std::string_view name);

/// Tells of a resource fork of `size` bytes, more than none, that is no part of the file's content.
void noteResourceFork(FileNode& node, std::uint64_t size);

} // namespace AppleAttributes
