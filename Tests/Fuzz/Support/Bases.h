#pragma once

#include "VintrelCore/Foundation/Binary.h"

#include <functional>

/// The sound images that recipes change, built once in the process.
namespace Bases {

enum Number : std::uint8_t {
    blank,
    fat12,
    fat16,
    fat32,
    exFAT,
    ntfs,
    shadowCopies,
    hfsPlus,
    apfs,
    ext,
    partitions,
    countOfAll
};

struct Base {
    Bytes bytes; ///< empty: the recipe has all
    /// Repairs the checksums that only the builder can; may be empty.
    std::function<void(Bytes& image)> renew {};
};

const Base& get(Number number);

} // namespace Bases
