#pragma once

#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/NumberGroups.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace NTFSRebuild {

/// The groups that became volumes. Snapshots keep copies of the MFT, so that the same files can be
/// found several times; they are listed once.
class ListedGroups {
public:
    /// Takes the records out of `group` whose files a volume lists already, with the same content
    /// at the same clusters. Folders stay for the sake of their files, unless nothing is left for
    /// them. `hasPlace`: of the group; what a volume without a place lists is not the same.
    void dropRepeated(RecordReader& reader, RecordGroup& group, bool hasPlace) const;

    void add(const RecordGroup& group, bool hasPlace);

private:
    struct Listed {
        std::unordered_map<std::uint64_t, LooseRecord> records; ///< by number
        bool hasPlace;
    };

    bool isRepeated(RecordReader& reader, const LooseRecord& loose, const MFTRecord& record,
        bool hasPlace) const;

    std::vector<Listed> groups_;
};

} // namespace NTFSRebuild
