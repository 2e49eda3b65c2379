#pragma once

#include "VintrelCore/FileSystems/NTFS/Content.h"
#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"

#include <cstdint>

// Files that stand in for content which lies elsewhere: in a cloud, in a compressed stream or in a
// store of pieces that several files share. What they have of their own is a hole of the content's
// size.

namespace NTFSContent {

/// The record's reparse tag, which is read where the record does not hold it; 0 when it has none.
std::uint32_t reparseTagOf(const NTFSContext& context, const MFTRecord& record);

/// Gives a file that Windows packed its content, which lies in a stream of the record, and takes
/// that out of the record. A content that is more than a hole stays as it is.
void unpackStandIn(const NTFSContext& context, MFTRecord& record, Content& content);

/// Doubts a content whose file's reparse tag says that its holes are none. One that is nothing but
/// a hole is taken away, so that nobody takes its zeros for the file.
void judgeStandIn(Content& content, std::uint32_t reparseTag);

} // namespace NTFSContent
