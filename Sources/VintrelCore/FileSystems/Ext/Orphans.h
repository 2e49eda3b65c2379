#pragma once

#include "VintrelCore/FileSystems/Ext/Context.h"

#include <cstdint>
#include <set>

/// Files without a name that some program still had open, or that were not yet taken apart, when
/// the volume was last written: their blocks are still in use, and by them. Used by one thread.
namespace ExtOrphans {

/// The numbers of their inodes, by the superblock's list of them, by the volume's orphan file and
/// by fast commits. Inodes with names, of files that were being cut, are among them.
std::set<std::uint32_t> numbers(const ExtContext& context);

/// Whether a number is that of the orphan file, which is the system's own.
bool isOrphanFile(const ExtGeometry& geometry, std::uint32_t number);

} // namespace ExtOrphans
