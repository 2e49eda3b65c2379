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
    std::uint64_t lcn = 0;
    std::string ext {};      ///< as carved files are called; empty for a folder
    std::uint64_t size = 0;  ///< of the file, in bytes
    FileReference folder {}; ///< the folder itself
    bool isInUse = true;     ///< the folder's record
};

/// What the records of a group say that helps to find the place of their volume.
struct Evidence {
    std::vector<Witness> witnesses;
    std::map<std::uint64_t, std::size_t> clusterSizes; ///< how many files speak for each
};

/// Where a volume seems to lie.
struct Placement {
    NTFSGeometry geometry;
    std::size_t support = 0;   ///< witnesses that speak for it
    std::size_t witnesses = 0; ///< all there are

    /// A place that most witnesses do not confirm can be that of another volume.
    bool isCertain() const { return 2 * support >= witnesses; }
};

/// Finds where a volume lies of which only records are left. Used by one thread.
class PlaceSearch {
public:
    PlaceSearch(DiskSource& source, const NTFSParser::RebuildHints& hints);

    /// None when cancelled.
    std::optional<Evidence> gather(
        RecordReader& reader, const RecordGroup& group, const WorkProgress* progress) const;

    /// The place that most witnesses support; none in its geometry when too few support any.
    Placement bestPlace(const Evidence& evidence, std::uint32_t recordSize);

private:
    bool isRecognisable(std::string_view name) const;
    std::optional<std::uint64_t> baseByFinds(
        const Evidence& evidence, std::uint64_t clusterSize, bool isSameSize) const;
    bool supports(const Witness& witness, const NTFSGeometry& geometry);
    bool isIndexOf(const Witness& witness, std::uint64_t offset);

    DiskSource& source_;
    const NTFSParser::RebuildHints& hints_;
    Carver recogniser_;
    std::map<std::string, std::vector<const CarvedFile*>> finds_; ///< by their extensions
};

} // namespace NTFSRebuild
