#pragma once

#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/Model/FileNode.h"
#include "VintrelCore/Model/Volume.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

class DiskSource;

namespace NTFSShadow {

/// The files of a volume, to tell which files of its shadow copies are still the same.
class SameFiles {
public:
    /// `volume` and `source` must outlive this.
    SameFiles(DiskSource& source, const Volume& volume);

    /// Takes out of a shadow copy the files that the volume has too, with the same record, sizes,
    /// dates and content, and the folders that hold nothing else. The copy's files have their
    /// places on the source. `copy`: what reads as if it were the volume.
    void removeFrom(Volume& snapshot, DiskSource& copy) const;

private:
    class Comparison;

    DiskSource& source_;
    const Volume& volume_;
    /// By the numbers of their records. Earlier files of a record can be listed too.
    std::unordered_multimap<std::uint64_t, const FileNode*> files_;
};

} // namespace NTFSShadow
