#pragma once

#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <functional>
#include <string>

// The change journal of a volume ([MS-FSCC], USN_RECORD_V2 and USN_RECORD_V3). Pure.

namespace NTFSJournal {

/// Entries do not cross the ends of pages of this size.
inline constexpr std::uint64_t pageSize = 4096;

/// What an entry says of the file that changed: its name, and the folder that it had.
struct Change {
    FileReference file;
    FileReference parent;
    std::string name;
};

/// Calls `visit` for every entry of whole pages, the oldest one first. What is damaged ends its
/// page.
void forEachChange(ByteView pages, const std::function<void(Change&)>& visit);

} // namespace NTFSJournal
