#include "VintrelCore/Fragments/Kinds.h"

#include <algorithm>
#include <iterator>

namespace Fragments {

bool holdsOthers(std::string_view extension)
{
    constexpr std::string_view plain[] = { "jpg", "png", "gif", "bmp", "mp3" };
    return std::ranges::find(plain, extension) == std::end(plain);
}

bool isCompressed(std::string_view extension)
{
    constexpr std::string_view compressed[] = { "jpg", "png", "gif", "mp3", "mp4", "mov", "m4a",
        "m4v", "3gp", "mkv", "webm", "ogg", "avi", "docx", "xlsx", "pptx", "odt", "ods", "odp",
        "epub", "jar", "7z", "heic", "avif" };
    return std::ranges::find(compressed, extension) != std::end(compressed);
}

bool hasChecksums(std::string_view extension)
{
    constexpr std::string_view checked[]
        = { "png", "zip", "docx", "xlsx", "pptx", "odt", "ods", "odp", "epub", "jar" };
    return std::ranges::find(checked, extension) != std::end(checked);
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
