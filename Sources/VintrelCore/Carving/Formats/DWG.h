#pragma once

#include "VintrelCore/Carving/Formats/Formats.h"

namespace Formats {

/// A drawing of AutoCAD 2004 or later; none when its header's sum is wrong.
Found pagedDWG(const Candidate& candidate);

} // namespace Formats
