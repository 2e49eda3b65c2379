#include "VintrelCore/Model/DeepScanResult.h"

std::vector<FindCount> findCounts(const DeepScanResult& result)
{
    return { { "signaturfund", "files", result.carved.size() },
        { "bootsektorer", "bootSectors", result.boots.size() },
        { "MFT-poster", "mftRecords", result.mftRecords.size() },
        { "FAT-mappesektorer", "fatDirectorySectors", result.fatDirSectors.size() },
        { "APFS-knuder", "apfsNodes", result.apfsLeafNodes.size() } };
}
