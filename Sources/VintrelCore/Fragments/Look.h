#pragma once

#include <cstdint>

namespace Fragments {

/// How much of the deleted files is looked at.
enum class Look : std::uint8_t {
    heads, ///< only whether they begin as their names say
    contents,
};

} // namespace Fragments
