#pragma once

#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/FileTypes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class DiskSource;

struct PartitionEntry {
    std::int64_t id = 0; ///< unique in the process
    int index = 0;       ///< from 1, in the order of the table's used slots
    std::string scheme;  ///< "GPT", "MBR", "MBR (logisk)" or "Ingen"
    std::string typeName;
    std::uint64_t offset = 0; ///< in bytes on the source, always below its size
    std::uint64_t size = 0;   ///< in bytes, cut at the end of the source
    std::string name;         ///< GPT's own name of the partition; empty when there is none
    std::optional<FileSystemType> detected;
};

struct PartitionLayout {
    std::string scheme; ///< "GPT", "MBR", "Ingen partitionstabel" or "Ukendt"
    std::vector<PartitionEntry> entries;
    std::vector<std::string> notes;
};

namespace PartitionTable {

/// The partitions of a source: by GPT, else the whole source when a file system fills it, else by
/// MBR. What lies in each is probed.
PartitionLayout read(DiskSource& source);

/// The text form of a GUID at `at`, whose first three groups are stored in little-endian order:
/// "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7".
std::string guid(ByteView bytes, std::int64_t at);

/// The name of a partition type, by its GUID's text or by its MBR byte.
std::string gptTypeName(std::string_view guid);
std::string mbrTypeName(std::uint8_t type);

} // namespace PartitionTable
