#pragma once

#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>

// What records and attribute lists have in common on disk ("NTFS Documentation" of the Linux-NTFS
// project, FILE Reference and Attributes).

namespace NTFSLayout {

struct StoredReference {
    LE32 numberLow;  // 0
    LE16 numberHigh; // 4
    LE16 sequence;   // 6

    operator FileReference() const
    {
        return { std::uint64_t { numberHigh } << 32 | numberLow, sequence };
    }
};
static_assert(sizeof(StoredReference) == 8);

enum AttributeType : std::uint32_t {
    standardInformation = 0x10,
    attributeList = 0x20,
    fileName = 0x30,
    volumeName = 0x60,
    data = 0x80,
    indexAllocation = 0xA0,
    reparsePoint = 0xC0,
    endOfAttributes = 0xFFFFFFFF,
};

} // namespace NTFSLayout
