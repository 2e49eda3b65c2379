#pragma once

#include "VintrelCore/Disk/RandomReader.h"

#include <algorithm>
#include <cstdint>

/// Gives `take` the bytes of [from, from + size) as they come from the source.
template <class Take>
void forEachStretch(RandomReader& file, std::uint64_t from, std::uint64_t size, Take take)
{
    while (size > 0 && !file.isExhausted()) {
        const auto bytes = file.stretch(from).span();
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), size));
        if (count == 0)
            return;
        take(ByteView(bytes.first(count)));
        file.addWork(count);
        from += count;
        size -= count;
    }
}
