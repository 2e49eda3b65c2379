#pragma once

#include <cstdint>

class RandomReader;

namespace Formats {

/// The extension of an archive of iWork that is no presentation, by the local header of its
/// document at byte `position`: "pages", "numbers", or "zip" when that does not say.
const char* iWorkKind(RandomReader& file, std::uint64_t position);
/// The same of what iWork wrote before 2013, whose document is XML; "zip" too without zlib.
const char* iWorkKindByXML(RandomReader& file, std::uint64_t position);

} // namespace Formats
