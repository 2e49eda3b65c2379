#include "VintrelCore/FileSystems/ExFAT/BootSector.h"

std::optional<ExFATBootSector> ExFATBootSector::from(ByteView head)
{
    constexpr int minShift = 9;
    constexpr int maxShift = 12;
    const auto sector = head.load<ExFATBootSector>(0);
    if (!sector || !ByteView(sector->name).matches("EXFAT   ", 0)
        || sector->bytesPerSectorShift < minShift || sector->bytesPerSectorShift > maxShift)
        return std::nullopt;
    return sector;
}
