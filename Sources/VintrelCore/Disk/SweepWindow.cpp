#include "VintrelCore/Disk/SweepWindow.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>

ByteView SweepWindow::moveTo(std::uint64_t offset)
{
    first_ = offset / chunkSize;
    return loaded(first_).bytes;
}

std::optional<SweepWindow::Chunk> SweepWindow::chunkAt(std::uint64_t offset)
{
    const std::uint64_t index = offset / chunkSize;
    if (index < first_ || index - first_ >= maxChunks || offset >= source_.size())
        return std::nullopt;
    return Chunk { index * chunkSize, loaded(index).bytes };
}

const SweepWindow::Slot& SweepWindow::loaded(std::uint64_t index)
{
    const auto known = std::ranges::find(slots_, index, &Slot::index);
    if (known != slots_.end())
        return *known;
    // In place of what was looked at last: its memory is in the processor's caches.
    auto& slot = *std::ranges::max_element(slots_, {}, [&](const Slot& candidate) {
        return !candidate.memory ? 1 : candidate.index < first_ ? candidate.index + 2 : 0;
    });
    const std::uint64_t offset = index * chunkSize;
    const auto size
        = static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, source_.size() - offset));
    if (!slot.memory)
        slot.memory = std::make_unique<AlignedBuffer>(size);
    const auto bytes = slot.memory->bytes().first(size);
    // Thorough: what lies beside a bad sector is not lost with the 64 KiB around it.
    source_.readReporting(offset, bytes, ReadMode::thorough);
    slot.bytes = std::span<const std::uint8_t>(bytes);
    slot.index = index;
    return slot;
}
