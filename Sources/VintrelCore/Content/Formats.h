#pragma once

#include "VintrelCore/Content/Content.h"

#include <memory>

/// One checker for each format, made before the file's first byte was read. Each format's source
/// names the document that it follows.
namespace Content::Formats {

std::unique_ptr<Checker> gif();
std::unique_ptr<Checker> jpeg();
std::unique_ptr<Checker> isoBMFF();
std::unique_ptr<Checker> matroska();
std::unique_ptr<Checker> mp3();
std::unique_ptr<Checker> ogg();
std::unique_ptr<Checker> ole();
std::unique_ptr<Checker> pdf(); ///< needs zlib
std::unique_ptr<Checker> png();
std::unique_ptr<Checker> riff();
std::unique_ptr<Checker> sqlite();
std::unique_ptr<Checker> tiff();
std::unique_ptr<Checker> zip(); ///< needs zlib

} // namespace Content::Formats
