#pragma once

#include <cstdint>
#include <span>

namespace NTFSParser {

/// How many bytes each number of an update sequence protects, whatever the disk's sectors are.
inline constexpr std::int64_t updateSectorSize = 512;

/// Puts the ends of the sectors back in place ("NTFS Documentation", Fixup). `offset` and `count`:
/// of the update sequence, its own number included. False when one of the sectors does not belong
/// to the others.
bool applyUpdateSequence(std::span<std::uint8_t> bytes, std::int64_t offset, std::int64_t count);

} // namespace NTFSParser
