#include "VintrelCore/FileSystems/NTFS/UpdateSequence.h"

#include "VintrelCore/Foundation/Binary.h"

#include <algorithm>

namespace NTFSParser {

bool applyUpdateSequence(std::span<std::uint8_t> bytes, std::int64_t offset, std::int64_t count)
{
    const ByteView view(bytes);
    const auto size = static_cast<std::int64_t>(bytes.size());
    if (count < 2 || offset + 2 * count > size)
        return false;
    const auto updateNumber = view.u16le(offset);
    bool isSound = true;
    for (std::int64_t sector = 0; sector < count - 1 && (sector + 1) * updateSectorSize <= size;
         ++sector) {
        const std::int64_t end = (sector + 1) * updateSectorSize - 2;
        isSound = isSound && view.u16le(end) == updateNumber;
        std::copy_n(bytes.begin() + offset + 2 + 2 * sector, 2, bytes.begin() + end);
    }
    return isSound;
}

} // namespace NTFSParser
