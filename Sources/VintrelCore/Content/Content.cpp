#include "VintrelCore/Content/Content.h"

#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Foundation/Compression/Compression.h"

#include <algorithm>
#include <iterator>

namespace Content {

namespace {

/// A kind of file and who can follow it. A new format is a row here and a checker in Formats.h.
struct Kind {
    std::string_view extension;
    std::unique_ptr<Checker> (*make)();
    bool needsZlib = false;
};

constexpr Kind kinds[] = {
    { "jpg", Formats::jpeg },
    { "mp4", Formats::isoBMFF },
    { "mov", Formats::isoBMFF },
    { "m4a", Formats::isoBMFF },
    { "m4v", Formats::isoBMFF },
    { "3gp", Formats::isoBMFF },
    { "heic", Formats::isoBMFF },
    { "avif", Formats::isoBMFF },
    { "cr3", Formats::isoBMFF },
    { "png", Formats::png },
    { "zip", Formats::zip, true },
    { "docx", Formats::zip, true },
    { "xlsx", Formats::zip, true },
    { "pptx", Formats::zip, true },
    { "odt", Formats::zip, true },
    { "ods", Formats::zip, true },
    { "odp", Formats::zip, true },
    { "epub", Formats::zip, true },
    { "jar", Formats::zip, true },
    { "pdf", Formats::pdf, true },
    { "avi", Formats::riff },
    { "wav", Formats::riff },
    { "webp", Formats::riff },
    { "mp3", Formats::mp3 },
    { "doc", Formats::ole },
    { "xls", Formats::ole },
    { "ppt", Formats::ole },
    { "msg", Formats::ole },
    { "tif", Formats::tiff },
    { "tiff", Formats::tiff },
    { "dng", Formats::tiff },
    { "nef", Formats::tiff },
    { "cr2", Formats::tiff },
    { "arw", Formats::tiff },
    { "pef", Formats::tiff },
    { "orf", Formats::tiff },
    { "rw2", Formats::tiff },
    { "mkv", Formats::matroska },
    { "webm", Formats::matroska },
    { "gif", Formats::gif },
    { "ogg", Formats::ogg },
    { "oga", Formats::ogg },
    { "ogv", Formats::ogg },
    { "opus", Formats::ogg },
    { "sqlite", Formats::sqlite },
    { "sqlite3", Formats::sqlite },
};

} // namespace

std::unique_ptr<Checker> checkerFor(std::string_view extension)
{
    const auto* const kind = std::ranges::find(kinds, extension, &Kind::extension);
    const bool isKnown = kind != std::end(kinds) && (!kind->needsZlib || Compression::hasZlib());
    return isKnown ? kind->make() : nullptr;
}

} // namespace Content
