#include "VintrelCore/FileSystems/NTFS/BootSector.h"

#include <algorithm>
#include <bit>
#include <cstddef>

namespace {

struct StoredBootSector {
    std::array<std::uint8_t, 3> jump;       //  0
    std::array<std::uint8_t, 8> systemName; //  3  "NTFS    "
    LE16 bytesPerSector;                    // 11
    std::uint8_t sectorsPerCluster;         // 13  above 128: a negative power of two
    std::array<std::uint8_t, 26> unused1;   // 14
    LE64 totalSectors;                      // 40
    LE64 mftLCN, mirrorLCN;                 // 48, 56
    std::uint8_t clustersPerRecord;         // 64  signed; negative: a power of two in bytes
    std::array<std::uint8_t, 447> unused2;  // 65
};
static_assert(sizeof(StoredBootSector) == 512 && offsetof(StoredBootSector, mftLCN) == 48);

constexpr std::string_view systemName = "NTFS    ";
constexpr std::uint64_t minSectorSize = 512;
constexpr std::uint64_t maxSectorSize = 4096;
constexpr std::uint64_t maxSectorsPerCluster = 4096;
constexpr std::uint64_t minRecordSize = 512;
constexpr std::uint64_t maxRecordSize = 65'536;

bool isSectorSize(std::uint64_t bytes)
{
    return bytes >= minSectorSize && bytes <= maxSectorSize && std::has_single_bit(bytes);
}

std::uint64_t decodeSectorsPerCluster(std::uint8_t stored)
{
    if (stored <= 128)
        return stored;
    const int power = 256 - stored;
    const std::uint64_t sectors = power < 64 ? std::uint64_t { 1 } << power : 0;
    return sectors <= maxSectorsPerCluster ? sectors : 0;
}

std::uint64_t decodeRecordSize(std::uint8_t stored, std::uint64_t clusterSize)
{
    std::uint64_t size = stored * clusterSize;
    if (stored >= 128) {
        const int power = 256 - stored;
        size = power <= 16 ? std::uint64_t { 1 } << power : 0;
    }
    return size >= minRecordSize && size <= maxRecordSize ? size : 0;
}

} // namespace

std::optional<NTFSBootSector> NTFSBootSector::from(ByteView sector)
{
    std::array<std::uint8_t, sizeof(StoredBootSector)> padded {};
    std::ranges::copy(sector.sub(0, padded.size()).span(), padded.begin());
    const auto stored = std::bit_cast<StoredBootSector>(padded);
    if (!ByteView(stored.systemName).matches(systemName, 0) || !isSectorSize(stored.bytesPerSector))
        return std::nullopt;

    const std::uint64_t bytesPerSector = stored.bytesPerSector;
    const std::uint64_t sectorsPerCluster = decodeSectorsPerCluster(stored.sectorsPerCluster);
    return NTFSBootSector {
        .bytesPerSector = bytesPerSector,
        .sectorsPerCluster = sectorsPerCluster,
        .totalSectors = stored.totalSectors,
        .mftLCN = stored.mftLCN,
        .mirrorLCN = stored.mirrorLCN,
        .recordSize
        = decodeRecordSize(stored.clustersPerRecord, bytesPerSector * sectorsPerCluster),
    };
}
