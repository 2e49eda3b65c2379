#pragma once

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/LooseRecords.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild/NumberGroups.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace NTFSRebuild {

/// A file or folder that speaks for where a volume lies: something recognisable begins at its first
/// cluster.
struct Witness {
    std::uint64_t lcn;
    std::string ext;    ///< as carved files are called; empty for a folder
    std::uint64_t size; ///< of the file, in bytes
};

/// What the records of a group say that helps to find the place of their volume.
struct Evidence {
    std::vector<Witness> witnesses;
    std::map<std::uint64_t, std::size_t> clusterSizes; ///< how many files speak for each
};

/// Finds where a volume lies of which only records are left. Used by one thread.
class PlaceSearch {
public:
    PlaceSearch(DiskSource& source, const NTFSParser::RebuildHints& hints);

    /// None when cancelled.
    std::optional<Evidence> gather(
        RecordReader& reader, const RecordGroup& group, const WorkProgress* progress) const;

    /// The geometry that most witnesses support; one without a place when no witness supports any.
    NTFSGeometry bestGeometry(const Evidence& evidence, std::uint32_t recordSize);

private:
    bool isRecognisable(std::string_view name) const;
    std::optional<std::uint64_t> baseByFinds(
        const Evidence& evidence, std::uint64_t clusterSize, bool isSameSize) const;
    bool supports(const Witness& witness, const NTFSGeometry& geometry);

    DiskSource& source_;
    const NTFSParser::RebuildHints& hints_;
    Carver recogniser_;
    std::map<std::string, std::vector<const CarvedFile*>> finds_; ///< by their extensions
};

} // namespace NTFSRebuild
