#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

enum class FileSystemType { fat12, fat16, fat32, exfat, ntfs, hfsplus, apfs, ext, carved, unknown };

inline constexpr std::array allFileSystemTypes { FileSystemType::fat12, FileSystemType::fat16,
    FileSystemType::fat32, FileSystemType::exfat, FileSystemType::ntfs, FileSystemType::hfsplus,
    FileSystemType::apfs, FileSystemType::ext, FileSystemType::carved, FileSystemType::unknown };

/// The short name used in listings: "FAT32", "ext2/3/4", "Ukendt" …
std::string_view displayName(FileSystemType type);

/// Whether it is FAT of any width.
constexpr bool isFAT(FileSystemType type)
{
    return type == FileSystemType::fat12 || type == FileSystemType::fat16
        || type == FileSystemType::fat32;
}

enum class FileCategory { image, video, audio, document, archive, other };

inline constexpr std::array allFileCategories { FileCategory::image, FileCategory::video,
    FileCategory::audio, FileCategory::document, FileCategory::archive, FileCategory::other };

std::string_view identifier(FileCategory category);
std::string_view label(FileCategory category);
/// The name of an icon that stands for the category.
std::string_view symbol(FileCategory category);
/// The category of a file by its name's extension; `other` for one that is not in the table.
FileCategory categoryOf(std::string_view fileName);

/// The text after the last dot, with ASCII letters in lower case; empty when there is none.
std::string fileExtension(std::string_view fileName);
