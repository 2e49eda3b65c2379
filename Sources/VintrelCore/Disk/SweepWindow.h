#pragma once

#include "VintrelCore/Foundation/AlignedBuffer.h"
#include "VintrelCore/Foundation/Binary.h"

#include <array>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>

class DiskSource;

/// What a sweep from the front of a source to its end holds in memory: the chunk that it looks at,
/// and those ahead of it that somebody else wanted to see early. So nothing is read twice, which on
/// a disk that the system does not cache takes twice the time. Used by one thread; the one that
/// reads ahead is its own, and of the source's reads one is done after the other.
class SweepWindow {
public:
    static constexpr std::size_t chunkSize = 4'194'304;

    explicit SweepWindow(DiskSource& source)
        : source_(source)
    {
    }

    /// Makes the chunk that begins at `offset`, a multiple of `chunkSize` on the source, the first
    /// one of the window. The last chunk of a source may be shorter.
    ByteView moveTo(std::uint64_t offset);
    /// Begins to read the chunk at `offset`, a multiple of `chunkSize` on the source, on a thread
    /// of its own, so that the disk works while the caller searches what it has. Does nothing once
    /// a read has met an error or took long: a dying disk is asked for what is wanted now.
    void readAhead(std::uint64_t offset);

    /// A chunk and its place on the source.
    struct Chunk {
        std::uint64_t offset;
        ByteView bytes;
    };
    /// The chunk with the byte at `offset`; none when the window does not reach so far. Valid until
    /// the window moves.
    std::optional<Chunk> chunkAt(std::uint64_t offset);

private:
    /// Enough for nearly every photo. A larger window would leave the processor's caches for
    /// nothing.
    static constexpr std::size_t maxChunks = 4;

    struct Slot {
        std::uint64_t index = ~std::uint64_t { 0 };
        std::unique_ptr<AlignedBuffer> memory; ///< none until it is needed
        ByteView bytes;
    };

    const Slot& loaded(std::uint64_t index);
    bool takeAhead(Slot& slot, std::uint64_t index);
    bool fill(Slot& slot, std::uint64_t index) const;

    DiskSource& source_;
    std::uint64_t first_ = 0; // index of the first chunk
    std::array<Slot, maxChunks> slots_;
    bool isHealthy_ = true;     // no read has met an error or took long
    Slot ahead_;                // belongs to the other thread as long as `reading_` is valid
    std::future<bool> reading_; // waits for that thread when it dies, so that it comes last
};
