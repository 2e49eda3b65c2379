#pragma once

#include "VintrelCore/Content/Content.h"

#include <memory>

/// One checker for each format, made before the file's first byte was read. Each format's source
/// names the document that it follows.
namespace Content::Formats {

std::unique_ptr<Checker> jpeg();

} // namespace Content::Formats
