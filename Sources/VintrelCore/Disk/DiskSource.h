#pragma once

#include "VintrelCore/Disk/RawSource.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/RangeSet.h"

#include <CVintrel/Mutex.h>

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

/// What a read does after an error: `thorough` goes on sector by sector and finds every readable
/// one; `fast` gives up the whole 64 KiB block and does not ask the disk for it again.
enum class ReadMode { thorough, fast };

struct ReadReport {
    Bytes data; ///< as many bytes as were asked for; zeros where unreadable and past the end
    std::uint64_t badBytes
        = 0; ///< how many of them the disk did not give; those past the end do not count
};

/// The one random-access byte source through which everything else reads an image file or a disk.
/// Reads never fail: bytes that cannot be read come back as zeros and are counted. Small reads go
/// through a cache of chunks. Offsets, counts and sizes are in bytes. Any thread may use it; its
/// reads are done one after another.
class DiskSource {
public:
    static constexpr std::int64_t chunkSize = 131'072;
    static constexpr std::size_t maxCacheChunks = 160;

    /// What an opener knows about the source that it opened.
    struct Opened {
        FileDescriptor descriptor; ///< read-only; none where `read` stands in for it
        std::string path;          ///< as it was opened
        std::string displayName;   ///< the file's last path component, or the device name
        std::uint64_t size = 0;
        std::uint32_t sectorSize = 512; ///< a smaller one becomes 512
        bool isDevice = false;
        std::optional<std::string> bsdName;
        std::function<void()>
            cleanup; ///< run once at close, for example to detach a disk image; may be empty
        bool needsAlignment = false; ///< reads fail unless buffer, offset and count are aligned
        ReadFunction read {};        ///< instead of the descriptor; may be empty
    };

    explicit DiskSource(Opened opened);
    DiskSource(const DiskSource&) = delete;
    DiskSource& operator=(const DiskSource&) = delete;
    ~DiskSource();

    const std::string& path() const { return path_; }
    const std::string& displayName() const { return displayName_; }
    std::uint64_t size() const { return size_; }
    std::uint32_t sectorSize() const { return sectorSize_; }
    std::uint64_t sectorCount() const { return size_ / sectorSize_; }
    bool isDevice() const { return isDevice_; }
    const std::optional<std::string>& bsdName() const { return bsdName_; }

    /// `count` bytes from `offset` on. A count below 1 gives nothing. Whoever takes the count from
    /// the disk limits it first.
    Bytes read(std::uint64_t offset, std::int64_t count, ReadMode mode);
    ReadReport readReporting(std::uint64_t offset, std::int64_t count, ReadMode mode);
    /// The same into the caller's buffer, which is filled wholly. Returns the unreadable bytes.
    std::uint64_t readReporting(std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode);

    /// Reads past the cache, straight into the buffer, which is filled wholly. Returns the
    /// unreadable bytes; all of them when the source is closed. On a device offset and count are
    /// whole sectors.
    std::uint64_t readInto(std::uint64_t offset, std::span<std::uint8_t> buffer, ReadMode mode);

    /// Where the next byte at or behind `offset` lies that may be anything but a readable zero:
    /// image files have holes that need not be read. The size when there is none. Only image files
    /// say.
    std::uint64_t nextData(std::uint64_t offset) const;

    /// One exact read without any recovery. True when every byte was delivered; those past the end
    /// are zero and count as delivered. On a device offset and count are whole sectors.
    bool tryRead(std::uint64_t offset, std::span<std::uint8_t> buffer);

    void markBad(std::uint64_t sector);
    bool isKnownBad(std::uint64_t sector) const;
    /// Whether a range touches a sector that is known to be unreadable.
    bool hasBadSectors(std::uint64_t offset, std::uint64_t count) const;
    /// The numbers of the sectors that are known to be unreadable.
    RangeSet badSectors() const;
    std::uint64_t badSectorCount() const;
    /// Failed reads, and sectors newly found bad.
    std::int64_t readErrorCount() const;
    /// Bytes that the operating system delivered.
    std::uint64_t bytesRead() const;

    /// Ranges that reads treat as unreadable, so that the handling of damage can be tried on a
    /// healthy image. Kept sorted and merged, and cut at the end of the source.
    std::vector<ByteRange> simulatedBadRanges() const;
    void addSimulatedBadRange(ByteRange range);

    /// Whether a file is the very one that is read here, whatever name or link led to it.
    bool isFile(const struct ::stat& status) const;

    /// Whether it is a device that answers no more. Every byte is unreadable then, and what failed
    /// since it last answered is not held against its sectors.
    bool hasLeft() const;
    /// Grows whenever the source has shown that it answers: reads that failed while this stayed the
    /// same may have failed because the device was about to leave.
    std::uint64_t answers() const;
    /// `action` is done once when the device is found to have left, by the thread whose read found
    /// it. It must not use the source.
    void whenLeaving(std::function<void()> action);

    bool isClosed() const;
    /// Closes the descriptor and runs the cleanup; afterwards every byte is unreadable. A second
    /// call does nothing.
    void close();

private:
    struct Chunk {
        std::uint64_t index;
        Bytes bytes;
    };

    /// A chunk and what of it could not be read.
    struct CachedChunk {
        const Bytes& bytes;
        bool hasBadBytes;
        /// Read just now in fast mode: whole blocks are missing, not single sectors.
        bool wasReadFast;
    };

    CachedChunk cachedChunk(std::uint64_t index, ReadMode mode) REQUIRES(lock_);
    std::uint64_t readThroughCache(
        std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode) REQUIRES(lock_);
    std::uint64_t readLarge(std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
        REQUIRES(lock_);
    std::uint64_t rawRead(std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
        REQUIRES(lock_);
    std::uint64_t recoverRead(std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
        REQUIRES(lock_);
    std::uint64_t recoverSectors(std::uint64_t offset, std::span<std::uint8_t> into)
        REQUIRES(lock_);
    bool isKnownToFail(std::uint64_t offset, std::uint64_t count, ReadMode mode) const
        REQUIRES(lock_);
    std::uint64_t badBytesIn(std::uint64_t offset, std::uint64_t count) const REQUIRES(lock_);
    std::uint64_t suspectBytesIn(std::uint64_t offset, std::uint64_t count) const REQUIRES(lock_);
    void addBadSector(std::uint64_t sector) REQUIRES(lock_);
    bool isOutOfReach() const REQUIRES(lock_) { return closed_ || raw_.hasLeft(); }
    std::uint64_t giveUp(std::span<std::uint8_t> into) REQUIRES(lock_);
    void noticeLeaving() REQUIRES(lock_);

    const std::string path_;
    const std::string displayName_;
    const std::uint64_t size_;
    const std::uint32_t sectorSize_;
    const bool isDevice_;
    const std::optional<std::string> bsdName_;

    mutable CVintrel::Mutex lock_;
    RawSource raw_ GUARDED_BY(lock_);
    bool closed_ GUARDED_BY(lock_) = false;
    std::function<void()> cleanup_ GUARDED_BY(lock_);
    std::list<Chunk> chunks_ GUARDED_BY(lock_); // least recently used first
    std::unordered_map<std::uint64_t, std::list<Chunk>::iterator> chunkByIndex_ GUARDED_BY(lock_);
    Chunk uncached_ GUARDED_BY(lock_) {}; // the last chunk that was not worth keeping
    Bytes aligned_ GUARDED_BY(lock_); // room for whole sectors around a large read that wants less
    /// By number. Ranges, as dead areas have millions of them.
    RangeSet badSectors_ GUARDED_BY(lock_);
    /// Those of the bad sectors that failed when `answers` was the last sign of the source.
    RangeSet doubtfulSectors_ GUARDED_BY(lock_);
    std::uint64_t answersBeforeDoubt_ GUARDED_BY(lock_) = 0;
    RangeSet suspectBlocks_ GUARDED_BY(lock_); ///< by number
    std::function<void()> leavingAction_ GUARDED_BY(lock_);
    std::int64_t readErrors_ GUARDED_BY(lock_) = 0;
};
