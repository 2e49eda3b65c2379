#include "VintrelCore/Model/DeepScanResult.h"

std::vector<FindCount> findCounts(const DeepScanResult& result)
{
    return { { "signaturfund", result.carved.size() }, { "bootsektorer", result.boots.size() },
        { "MFT-poster", result.mftRecords.size() },
        { "FAT-mappesektorer", result.fatDirSectors.size() },
        { "APFS-knuder", result.apfsLeafNodes.size() } };
}
