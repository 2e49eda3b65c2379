#pragma once

#include "VintrelCore/FileSystems/NTFS/Parser.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// From the $DATA attributes of a file to its content, and to the chance that the content is still
/// the file's own.
namespace NTFSContent {

/// What speaks against a content. Bits, because several can meet.
enum Doubt : std::uint8_t {
    lacksAttribute = 1, ///< there is no $DATA
    lacksRuns = 2,      ///< the place of some of it is not known, or not on the source
    isReused = 4,       ///< clusters belong to other files by now
    isEncrypted = 8,
    isDamagedRecord = 16 ///< the update sequence of a record did not hold
};

/// The fragments of one content put together.
struct Merged {
    DataFragment::Runs runs;
    std::uint64_t size = 0; ///< as claimed, or what the runs cover where the beginning is lost
    std::uint64_t initSize = 0;
    bool hasGaps = false;
};

/// None unless the first fragment lies in clusters. The fragments are left in the order of their
/// VCN.
std::optional<Merged> merge(const NTFSContext& context, std::vector<DataFragment>& fragments);

struct Content {
    FileData data;
    std::uint64_t size = 0;
    std::uint8_t doubts = 0;
};

/// The content that the fragments, which are used up, make. A size that neither the volume nor the
/// source could hold is cut to what they could.
Content of(const NTFSContext& context, std::vector<DataFragment>& fragments);

/// Which clusters of a volume are in use, as $Bitmap says.
class AllocationMap {
public:
    /// Reads the bitmap; no cluster is known when it cannot be had.
    static AllocationMap load(const NTFSContext& context, const FileData& bitmap);

    /// What became of the clusters of a deleted file.
    struct Use {
        std::uint64_t checked = 0;
        std::uint64_t used = 0;
        bool isFirstUsed = false;
        bool isUnknown = false; ///< of some clusters the map says nothing
    };

    /// Asks after the clusters that hold `data`, of a large file only the first ones.
    Use useOf(const FileData& data, const NTFSGeometry& geometry) const;

private:
    void look(std::uint64_t first, std::uint64_t count, Use& use) const;
    bool isKnown(std::uint64_t first, std::uint64_t count) const;

    Bytes bits_;
    struct Gap {
        std::uint64_t start, end; ///< bytes of the bitmap
    };
    std::vector<Gap> gaps_; ///< that could not be read, ascending
};

struct Chance {
    Recoverability recoverability {};
    std::optional<std::string> note;
};

/// The chance of a file's content. `use`: of its clusters; none for a file that exists, whose
/// clusters are its own.
Chance chanceOf(std::uint8_t doubts, const std::optional<AllocationMap::Use>& use);

/// The note about a folder, which has no content to doubt.
std::optional<std::string> noteOf(std::uint8_t doubts);

} // namespace NTFSContent
