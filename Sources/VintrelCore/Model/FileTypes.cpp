#include "VintrelCore/Model/FileTypes.h"

#include "VintrelCore/Foundation/Text.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {

struct CategoryText {
    std::string_view identifier, label, symbol;
};

constexpr CategoryText categoryTexts[] = {
    { "image", "Billeder", "photo" },
    { "video", "Video", "film" },
    { "audio", "Lyd", "waveform" },
    { "document", "Dokumenter", "doc.text" },
    { "archive", "Arkiver", "archivebox" },
    { "other", "Andet", "doc" },
};
static_assert(std::size(categoryTexts) == allFileCategories.size());

constexpr const CategoryText& texts(FileCategory category)
{
    return categoryTexts[static_cast<std::size_t>(category)];
}

struct ExtensionRow {
    std::string_view extension;
    FileCategory category;
};

/// Sorted by extension. Every format that is carved, and its usual neighbours; "sqlite" and "msg"
/// are carved as documents but belong to no category of the user's.
constexpr ExtensionRow extensionTable[] = {
    { "1pux", FileCategory::document },
    { "3fr", FileCategory::image },
    { "3g2", FileCategory::video },
    { "3gp", FileCategory::video },
    { "3mf", FileCategory::document },
    { "7z", FileCategory::archive },
    { "aac", FileCategory::audio },
    { "aif", FileCategory::audio },
    { "aifc", FileCategory::audio },
    { "aiff", FileCategory::audio },
    { "amr", FileCategory::audio },
    { "ape", FileCategory::audio },
    { "apk", FileCategory::archive },
    { "arw", FileCategory::image },
    { "asc", FileCategory::document },
    { "au", FileCategory::audio },
    { "avi", FileCategory::video },
    { "avif", FileCategory::image },
    { "blend", FileCategory::document },
    { "bmp", FileCategory::image },
    { "bz2", FileCategory::archive },
    { "cab", FileCategory::archive },
    { "caf", FileCategory::audio },
    { "cpio", FileCategory::archive },
    { "cr2", FileCategory::image },
    { "cr3", FileCategory::image },
    { "crw", FileCategory::image },
    { "csv", FileCategory::document },
    { "dds", FileCategory::image },
    { "djvu", FileCategory::document },
    { "dng", FileCategory::image },
    { "doc", FileCategory::document },
    { "docm", FileCategory::document },
    { "docx", FileCategory::document },
    { "dpx", FileCategory::image },
    { "dv", FileCategory::video },
    { "dwg", FileCategory::document },
    { "dxf", FileCategory::document },
    { "emf", FileCategory::image },
    { "eml", FileCategory::document },
    { "epub", FileCategory::document },
    { "erf", FileCategory::image },
    { "flac", FileCategory::audio },
    { "flv", FileCategory::video },
    { "gif", FileCategory::image },
    { "gpg", FileCategory::document },
    { "gz", FileCategory::archive },
    { "heic", FileCategory::image },
    { "heif", FileCategory::image },
    { "htm", FileCategory::document },
    { "html", FileCategory::document },
    { "ico", FileCategory::image },
    { "ics", FileCategory::document },
    { "iiq", FileCategory::image },
    { "indd", FileCategory::document },
    { "iso", FileCategory::archive },
    { "j2k", FileCategory::image },
    { "jar", FileCategory::archive },
    { "jp2", FileCategory::image },
    { "jpe", FileCategory::image },
    { "jpeg", FileCategory::image },
    { "jpg", FileCategory::image },
    { "jxl", FileCategory::image },
    { "kdbx", FileCategory::document },
    { "kdc", FileCategory::image },
    { "key", FileCategory::document },
    { "kra", FileCategory::image },
    { "m2ts", FileCategory::video },
    { "m4a", FileCategory::audio },
    { "m4v", FileCategory::video },
    { "mbox", FileCategory::document },
    { "md", FileCategory::document },
    { "mid", FileCategory::audio },
    { "midi", FileCategory::audio },
    { "mkv", FileCategory::video },
    { "mov", FileCategory::video },
    { "mp3", FileCategory::audio },
    { "mp4", FileCategory::video },
    { "mpeg", FileCategory::video },
    { "mpg", FileCategory::video },
    { "mrw", FileCategory::image },
    { "mts", FileCategory::video },
    { "mxf", FileCategory::video },
    { "nef", FileCategory::image },
    { "nrw", FileCategory::image },
    { "numbers", FileCategory::document },
    { "odg", FileCategory::document },
    { "odp", FileCategory::document },
    { "ods", FileCategory::document },
    { "odt", FileCategory::document },
    { "oga", FileCategory::audio },
    { "ogg", FileCategory::audio },
    { "ogv", FileCategory::video },
    { "opus", FileCategory::audio },
    { "orf", FileCategory::image },
    { "ost", FileCategory::document },
    { "pages", FileCategory::document },
    { "pdf", FileCategory::document },
    { "pef", FileCategory::image },
    { "pem", FileCategory::document },
    { "png", FileCategory::image },
    { "ppk", FileCategory::document },
    { "ppt", FileCategory::document },
    { "pptm", FileCategory::document },
    { "pptx", FileCategory::document },
    { "psb", FileCategory::image },
    { "psd", FileCategory::image },
    { "pst", FileCategory::document },
    { "r3d", FileCategory::video },
    { "raf", FileCategory::image },
    { "rar", FileCategory::archive },
    { "rtf", FileCategory::document },
    { "rw2", FileCategory::image },
    { "sketch", FileCategory::document },
    { "sr2", FileCategory::image },
    { "srw", FileCategory::image },
    { "stl", FileCategory::document },
    { "stp", FileCategory::document },
    { "svg", FileCategory::image },
    { "tar", FileCategory::archive },
    { "tga", FileCategory::image },
    { "tgz", FileCategory::archive },
    { "tif", FileCategory::image },
    { "tiff", FileCategory::image },
    { "ts", FileCategory::video },
    { "txt", FileCategory::document },
    { "vcf", FileCategory::document },
    { "vob", FileCategory::video },
    { "wav", FileCategory::audio },
    { "webm", FileCategory::video },
    { "webp", FileCategory::image },
    { "wma", FileCategory::audio },
    { "wmf", FileCategory::image },
    { "wmv", FileCategory::video },
    { "wv", FileCategory::audio },
    { "x3f", FileCategory::image },
    { "xcf", FileCategory::image },
    { "xls", FileCategory::document },
    { "xlsm", FileCategory::document },
    { "xlsx", FileCategory::document },
    { "xml", FileCategory::document },
    { "xz", FileCategory::archive },
    { "zip", FileCategory::archive },
    { "zst", FileCategory::archive },
};
static_assert(std::ranges::is_sorted(extensionTable, {}, &ExtensionRow::extension));

} // namespace

std::string_view displayName(FileSystemType type)
{
    constexpr std::array<std::string_view, allFileSystemTypes.size()> names { "FAT12", "FAT16",
        "FAT32", "exFAT", "NTFS", "HFS+", "APFS", "ext2/3/4", "Signaturer", "Ukendt" };
    return names[static_cast<std::size_t>(type)];
}

std::string_view identifier(FileCategory category) { return texts(category).identifier; }

std::string_view label(FileCategory category) { return texts(category).label; }

std::string_view symbol(FileCategory category) { return texts(category).symbol; }

FileCategory categoryOf(std::string_view fileName)
{
    const auto extension = fileExtension(fileName);
    const auto* const row
        = std::ranges::lower_bound(extensionTable, extension, {}, &ExtensionRow::extension);
    return row != std::end(extensionTable) && row->extension == extension ? row->category
                                                                          : FileCategory::other;
}

std::string fileExtension(std::string_view fileName)
{
    const auto dot = fileName.rfind('.');
    if (dot == std::string_view::npos)
        return {};
    return Text::lowerCase(fileName.substr(dot + 1));
}
