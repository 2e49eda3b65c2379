#pragma once

#include <cstdint>

class Volume;

/// Tells of a volume that claims more than the source holds, as that of a disk whose image was cut
/// short: a note with what is missing, and one on each file that reaches beyond. Where the level of
/// a chance is the program's own (everywhere but on FAT and HFS+) it falls with it.
void noteSourceEnd(Volume& volume, std::uint64_t sourceSize);

/// Lowers the sizes that neither the source nor the runs of a file can hold to the source's: a
/// wrong bit there would fill a destination with zeros. Only where a file system knows holes may
/// the runs of a file be longer than the source.
void limitSizes(Volume& volume, std::uint64_t sourceSize);
