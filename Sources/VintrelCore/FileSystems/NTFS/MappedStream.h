#pragma once

#include "VintrelCore/Model/FileData.h"

#include <cstdint>
#include <span>
#include <vector>

class DiskSource;

/// A stream of bytes that lies in pieces on the source, found by bisection.
class MappedStream {
public:
    MappedStream() = default;
    explicit MappedStream(ExtentList extents);

    std::uint64_t size() const { return ends_.empty() ? 0 : ends_.back(); }
    const ExtentList& extents() const { return extents_; }
    /// The rest of the extent that byte `position` lies in; of no length at the stream's end.
    Extent at(std::uint64_t position) const;
    struct ReadResult {
        bool isOnSource = false; ///< whether any of the bytes has a place on the source
        std::uint64_t badBytes = 0;
    };

    /// Fills `into` from byte `position` on. Holes, and what lies past the end or cannot be read,
    /// are zeros.
    ReadResult read(DiskSource& source, std::uint64_t position, std::span<std::uint8_t> into) const;

private:
    ExtentList extents_;
    std::vector<std::uint64_t> ends_; ///< of the extents, in bytes of the stream
};
