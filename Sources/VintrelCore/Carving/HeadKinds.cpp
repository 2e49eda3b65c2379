#include "VintrelCore/Carving/HeadKinds.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

/// What a file is called whose beginning is known and nothing else: by a mark of eight bytes at
/// most at `at`, and where there is one by a second mark at byte 8.
struct HeadKind {
    std::int64_t at;
    std::string_view mark;
    std::string_view secondMark;
    const char* extension;
};

constexpr HeadKind headKinds[] = {
    { 0, "\xFF\xD8\xFF", "", "jpg" },
    { 0, "\x89PNG\r\n\x1A\n", "", "png" },
    { 0, "GIF8", "", "gif" },
    { 0, { "II*\0", 4 }, "", "tif" },
    { 0, { "MM\0*", 4 }, "", "tif" },
    { 0, "RIFF", "AVI ", "avi" },
    { 0, "RIFF", "WAVE", "wav" },
    { 0, "\x1A\x45\xDF\xA3", "", "mkv" },
    { 0, "OggS", "", "ogg" },
    { 0, "%PDF-", "", "pdf" },
    { 0, "SQLite f", "", "sqlite" },
    { 0, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", "", "doc" },
    { 0, "PK\x03\x04", "", "zip" },
    { 0, "ID3", "", "mp3" },
    { 4, "ftypqt", "", "mov" },
    { 4, "ftyp", "", "mp4" },
};

} // namespace

const char* extensionByHead(ByteView head)
{
    const auto* const kind = std::ranges::find_if(headKinds, [&](const HeadKind& row) {
        return head.matches(row.mark, row.at) && head.matches(row.secondMark, 8);
    });
    return kind != std::end(headKinds) ? kind->extension : nullptr;
}
