#include "VintrelCore/Fragments/Kinds.h"

#include <algorithm>
#include <iterator>

namespace Fragments {

namespace {

struct FamilyRow {
    std::string_view extension;
    Family family;
};
constexpr FamilyRow families[] = {
    { "zip", Family::zip },
    { "docx", Family::zip },
    { "xlsx", Family::zip },
    { "pptx", Family::zip },
    { "odt", Family::zip },
    { "ods", Family::zip },
    { "odp", Family::zip },
    { "epub", Family::zip },
    { "jar", Family::zip },
    { "pdf", Family::pdf },
    { "mp4", Family::isoMedia },
    { "mov", Family::isoMedia },
    { "m4a", Family::isoMedia },
    { "m4v", Family::isoMedia },
    { "3gp", Family::isoMedia },
    { "avi", Family::avi },
    { "mkv", Family::matroska },
    { "webm", Family::matroska },
    { "doc", Family::compound },
    { "xls", Family::compound },
    { "ppt", Family::compound },
    { "msg", Family::compound },
    { "tif", Family::tiff },
    { "tiff", Family::tiff },
    { "dng", Family::tiff },
    { "nef", Family::tiff },
    { "cr2", Family::tiff },
    { "arw", Family::tiff },
    { "pef", Family::tiff },
};

} // namespace

Family familyOf(std::string_view extension)
{
    const auto* const row = std::ranges::find(families, extension, &FamilyRow::extension);
    return row != std::end(families) ? row->family : Family::other;
}

bool holdsOthers(std::string_view extension)
{
    constexpr std::string_view plain[] = { "jpg", "png", "gif", "bmp", "mp3" };
    return std::ranges::find(plain, extension) == std::end(plain);
}

bool isCompressed(std::string_view extension)
{
    constexpr std::string_view compressed[]
        = { "jpg", "png", "gif", "mp3", "ogg", "7z", "heic", "avif" };
    const auto family = familyOf(extension);
    return (family == Family::zip && extension != "zip") || family == Family::isoMedia
        || family == Family::matroska || family == Family::avi
        || std::ranges::find(compressed, extension) != std::end(compressed);
}

bool hasChecksums(std::string_view extension)
{
    return extension == "png" || familyOf(extension) == Family::zip;
}

bool looksCompressed(ByteView unit)
{
    constexpr std::size_t looked = 512;
    constexpr std::size_t enough = 16; // of 512 bytes: UTF-8 has some outside ASCII
    const auto bytes = unit.span().first(std::min(unit.size(), looked));
    std::size_t others = 0;
    for (const auto byte : bytes) {
        const bool isText = (byte >= 0x20 && byte < 0x7F) || (byte >= 9 && byte <= 13);
        others += isText || byte == 0 ? 0 : 1;
        if (others >= enough)
            return true;
    }
    return false;
}

} // namespace Fragments
