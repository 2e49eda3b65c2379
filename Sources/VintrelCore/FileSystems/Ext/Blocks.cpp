#include "VintrelCore/FileSystems/Ext/Blocks.h"

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/FileSystems/Ext/JournalStructures.h"

#include <algorithm>
#include <bit>

void ExtBlocks::lay(const Overlay& overlay)
{
    for (const auto& [block, copy] : overlay)
        overlay_.insert_or_assign(block, copy);
}

Bytes ExtBlocks::read(std::uint64_t first, std::uint64_t count) const
{
    auto bytes = source_.read(geometry_.offsetOf(first),
        static_cast<std::int64_t>(count * geometry_.blockSize), ReadMode::thorough);
    for (auto laid = overlay_.lower_bound(first); laid != overlay_.end(); ++laid) {
        if (laid->first - first >= count)
            break;
        const auto copy = readCopy(laid->second);
        const auto at = (laid->first - first) * geometry_.blockSize;
        std::ranges::copy(copy, bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }
    for (auto patch = patches_.lower_bound(first); patch != patches_.end(); ++patch) {
        if (patch->first - first >= count)
            break;
        const auto at = (patch->first - first) * geometry_.blockSize;
        std::ranges::copy(patch->second, bytes.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return bytes;
}

Bytes ExtBlocks::readCopy(const ExtBlockCopy& copy) const
{
    auto bytes = source_.read(copy.offset, geometry_.blockSize, ReadMode::thorough);
    if (copy.isEscaped)
        std::ranges::copy(std::bit_cast<std::array<std::uint8_t, sizeof(BE32)>>(
                              BE32(ExtJournalFormat::magicNumber)),
            bytes.begin());
    return bytes;
}
