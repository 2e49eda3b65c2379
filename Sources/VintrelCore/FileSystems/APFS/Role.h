#pragma once

#include <cstdint>
#include <string>

namespace APFSParser {

/// How a volume's role (0: none) is called, in Danish. Any thread may ask.
std::string roleName(std::uint16_t role);

} // namespace APFSParser
