#pragma once

#include "VintrelCore/FileSystems/NTFS/DeepInfo.h"
#include "VintrelCore/FileSystems/NTFS/MFTRecords.h"
#include "VintrelCore/FileSystems/NTFS/MappedStream.h"
#include "VintrelCore/FileSystems/NTFS/Rebuild.h"
#include "VintrelCore/FileSystems/NTFS/Records.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/Volume.h"
#include "VintrelCore/Model/WorkProgress.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

// MFT records that a sweep found and that belong to no volume yet.

namespace NTFSRebuild {

struct LooseRecord {
    std::uint64_t offset = 0; ///< in bytes on the source
    std::uint64_t number = 0;
    std::uint32_t size = 0; ///< in bytes
};

/// Reads records into one buffer. Used by one thread.
class RecordReader {
public:
    explicit RecordReader(DiskSource& source)
        : source_(source)
    {
    }

    DiskSource& source() const { return source_; }
    /// False when it is no record, or one with another number.
    bool read(const LooseRecord& loose, MFTRecord& record);
    /// Reads the record of the same number where this MFT has it.
    bool readFrom(const MappedStream& mft, const LooseRecord& loose, MFTRecord& record);

private:
    DiskSource& source_;
    Bytes buffer_;
};

/// The records at these offsets, without old copies of what `volumes` list already. Only records
/// that carry their number, as all since Windows XP do: what belongs where cannot be told
/// otherwise. When cancelled, what was read so far.
std::vector<LooseRecord> survey(RecordReader& reader, std::span<const std::uint64_t> offsets,
    std::span<const NTFSParser::ListedVolume> volumes, const WorkProgress* progress);

/// Whether clusters can have this many bytes.
bool isClusterSize(std::uint64_t bytes);
/// The cluster size, in bytes, that the record's content and its runs agree on; none when they do
/// not.
std::optional<std::uint64_t> clusterSizeOf(const MFTRecord& record);
/// Where the first cluster of a record's content lies; none when it has none.
std::optional<std::uint64_t> firstLCN(const MFTRecord& record);

/// Whether both records describe one file in one state: its name, folder and size, and since when
/// it has been there. An older state of a file, with another size, is worth being listed.
bool describeSameState(const MFTRecord& one, const MFTRecord& other);

/// The volume that these records make, none when they list nothing. What was in use is orphaned.
/// `count`: of the records, for the user. `mft`: where they lie; empty when they do not lie in one
/// known MFT. A $Bitmap in what known volumes use is not asked, because others may have written
/// over it.
std::unique_ptr<Volume> buildFromRecords(const NTFSContext& context, MFTRecords records,
    std::size_t count, MappedStream mft, const NTFSParser::RebuildHints& hints);

} // namespace NTFSRebuild
