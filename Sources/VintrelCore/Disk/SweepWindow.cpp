#include "VintrelCore/Disk/SweepWindow.h"

#include "VintrelCore/Disk/DiskSource.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

namespace {

/// The slowest cards and sticks read a chunk in a second; a disk that takes longer tries again and
/// again by itself.
constexpr std::chrono::seconds slowRead { 3 };

} // namespace

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
    if (!takeAhead(slot, index))
        isHealthy_ = fill(slot, index) && isHealthy_;
    return slot;
}

void SweepWindow::readAhead(std::uint64_t offset)
{
    const std::uint64_t index = offset / chunkSize;
    const bool isThere = std::ranges::find(slots_, index, &Slot::index) != slots_.end();
    if (!isHealthy_ || reading_.valid() || isThere || ahead_.index == index
        || offset >= source_.size())
        return;
    ahead_.index = index;
    try {
        reading_ = std::async(std::launch::async, [this, index] { return fill(ahead_, index); });
    } catch (const std::system_error&) { // the system has no thread to give
        isHealthy_ = false;
    }
}

/// Waits for what is read ahead, and takes it over when it is this chunk. False when it is not.
bool SweepWindow::takeAhead(Slot& slot, std::uint64_t index)
{
    if (reading_.valid())
        isHealthy_ = reading_.get() && isHealthy_;
    if (ahead_.index != index)
        return false;
    std::swap(slot, ahead_);
    return true;
}

/// Reads a chunk. False when some of it could not be read, or that took long.
bool SweepWindow::fill(Slot& slot, std::uint64_t index) const
{
    const std::uint64_t offset = index * chunkSize;
    const auto size
        = static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, source_.size() - offset));
    if (!slot.memory)
        slot.memory = std::make_unique<AlignedBuffer>(
            static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, source_.size())));
    const auto bytes = slot.memory->bytes().first(size);
    const auto begin = std::chrono::steady_clock::now();
    // Thorough: what lies beside a bad sector is not lost with the 64 KiB around it.
    const auto badBytes = source_.readReporting(offset, bytes, ReadMode::thorough);
    slot.bytes = std::span<const std::uint8_t>(bytes);
    slot.index = index;
    return badBytes == 0 && std::chrono::steady_clock::now() - begin < slowRead;
}
