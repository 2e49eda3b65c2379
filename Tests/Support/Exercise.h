#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"

#include <memory>
#include <string>

/// Does with a source what users do, and watches the rules that hold for every source, however
/// damaged. Each function returns the first rule that was broken; empty when all held.
namespace Exercise {

/// A source that holds these bytes, which must outlive it.
std::unique_ptr<DiskSource> sourceOf(const Bytes& bytes, std::uint32_t sectorSize = 512);

/// What the tables name, ext included, read back and printed.
std::string quick(DiskSource& source);
/// The parsers' searches for lost files, in what the tables name and in the bytes themselves.
std::string lost(DiskSource& source, const Bytes& bytes);
/// The sweep alone, with the volumes that are built of its finds.
std::string sweep(DiskSource& source);
/// The whole deep scan, read back and printed.
std::string deep(DiskSource& source, bool withFragments);
/// Copies all that the tables name into a folder of its own, beside which nothing may appear.
std::string recover(DiskSource& source);
std::string recover(DiskSource& source, const VolumeList& volumes);

/// Each file hands out exactly what it promises.
std::string readBack(DiskSource& source, const VolumeList& volumes);
/// No byte on the terminal may drive it.
std::string print(DiskSource& source, const VolumeList& volumes);
std::string harmlessText(std::string_view text);

} // namespace Exercise
