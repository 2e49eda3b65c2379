#pragma once

#include "VintrelCore/FileSystems/NTFS/Context.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <vector>

// Attributes that did not fit in a file's record lie in extension records, and an attribute list in
// the file's own record names those ("NTFS Documentation", $ATTRIBUTE_LIST).

namespace NTFSParser {

/// No system makes longer attribute lists; what goes on behind this many bytes is not read.
inline constexpr std::uint64_t maxAttributeList = 262'144;

/// What the record's attribute list holds; empty when it has none. One that is not resident is
/// read.
Bytes loadAttributeList(const NTFSContext& context, const MFTRecord& record);

/// The extension records that an attribute list names for file names, data and reparse
/// points, each once and in the list's order. `self`, the number of the record that has the list,
/// is not among them.
std::vector<FileReference> extensionsIn(ByteView attributeList, std::uint64_t self);

/// Whether `record` is the one that an attribute list of `base` names with `reference`.
bool isExtensionOf(const MFTRecord& record, FileReference reference, const MFTRecord& base);

/// Adds what the extension holds to the record that it continues, and leaves the extension empty.
void mergeExtension(MFTRecord& record, MFTRecord& extension);

} // namespace NTFSParser
