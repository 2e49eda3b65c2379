#pragma once

#include "VintrelCore/Disk/DeviceWatch.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

class AlignedBuffer;

/// Fills a buffer from byte `offset` on, for a source whose bytes lie in another one. False when
/// some of them could not be read. Never asked for bytes beyond the size.
using ReadFunction = std::function<bool(std::uint64_t offset, std::span<std::uint8_t> into)>;

/// The open file or device below a DiskSource: single reads, which can fail, without cache and
/// without recovery. Offsets, counts and sizes are in bytes. Used by one thread at a time.
class RawSource {
public:
    struct Opened {
        FileDescriptor descriptor; ///< read-only; none where `read` stands in for it
        std::uint64_t size = 0;
        std::uint32_t sectorSize = 512;
        bool isDevice = false;
        bool needsAlignment = false; ///< reads fail unless buffer, offset and count are aligned
        ReadFunction read {};        ///< instead of the descriptor; may be empty
    };

    explicit RawSource(Opened opened);
    RawSource(const RawSource&) = delete;
    RawSource& operator=(const RawSource&) = delete;
    ~RawSource();

    /// One read attempt. Returns how many bytes were delivered before it failed, all of them when
    /// it did not. What lies past the end of the source is delivered as zeros, and so is what an
    /// image file has lost since it was opened. A device that gives no bytes has failed.
    std::size_t attempt(std::uint64_t offset, std::span<std::uint8_t> into);
    /// The same. True when every byte was delivered.
    bool readExact(std::uint64_t offset, std::span<std::uint8_t> into);
    /// Whether it is a device that answers no more. Every attempt fails then without asking it.
    bool hasLeft() const { return watch_.hasLeft(); }
    /// Grows whenever the source has shown that it answers.
    std::uint64_t answers() const { return watch_.answers(); }
    /// Bytes that the operating system delivered.
    std::uint64_t bytesRead() const { return bytesRead_; }

    /// As DiskSource tells of them.
    std::uint64_t nextData(std::uint64_t offset) const;
    bool isFile(const struct ::stat& status) const;
    const std::vector<ByteRange>& simulatedBadRanges() const { return simulatedBadRanges_; }
    void addSimulatedBadRange(ByteRange range);

    void close() { descriptor_.close(); }

private:
    ssize_t readOnce(std::uint64_t offset, std::span<std::uint8_t> into);
    ssize_t readElsewhere(std::uint64_t offset, std::span<std::uint8_t> into);
    ssize_t readAligned(std::uint64_t offset, std::span<std::uint8_t> into);
    bool isSimulatedBad(std::uint64_t start, std::uint64_t end) const;
    void noteFailure(int error);
    bool readsAgain(std::uint64_t sector);

    const std::uint64_t size_;
    const std::uint32_t sectorSize_;
    const bool isDevice_;
    const bool needsAlignment_;
    FileDescriptor descriptor_;
    const ReadFunction read_;
    DeviceWatch watch_;
    std::unique_ptr<AlignedBuffer> detour_; ///< for reads whose own buffer is not aligned
    std::uint64_t bytesRead_ = 0;
    std::vector<ByteRange> simulatedBadRanges_; ///< sorted, disjoint
};
