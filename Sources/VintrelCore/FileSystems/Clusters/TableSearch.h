#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <optional>

class DiskSource;

/// A search for an allocation table in front of the clusters that it serves.
struct TableSearch {
    std::uint64_t end;    ///< where the table ends at the latest, in bytes on the source
    std::uint64_t length; ///< so many bytes before that are searched, or fewer; at most 256 MiB
    bool (*mayBegin)(ByteView sector); ///< whether a table can begin so
    std::function<bool(std::uint64_t)>
        isConfirmedAt; ///< whether what lies elsewhere agrees with it

    /// The place of the last table; none when there is none.
    std::optional<std::uint64_t> last(DiskSource& source) const;
};
