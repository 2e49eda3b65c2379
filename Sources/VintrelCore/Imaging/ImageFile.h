#pragma once

#include "VintrelCore/Foundation/ByteRange.h"
#include "VintrelCore/Foundation/FileDescriptor.h"
#include "VintrelCore/Foundation/SystemResult.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

class DiskSource;

/// The image that a disk is copied to, open for writing. It remembers what it was given since it
/// was last known to be safe on its disk. Used by one thread.
class ImageFile {
public:
    ImageFile() = default;

    /// Opens the image, or makes it. Refused are the source itself, also by the name of the
    /// mapfile, and whatever is no regular file: the source's own disk has more than one device.
    static SystemResult<ImageFile> open(
        const std::string& imagePath, const std::string& mapPath, const DiskSource& source);

    /// Its length in bytes when it was opened.
    std::uint64_t sizeAtOpening() const { return sizeAtOpening_; }

    /// Makes it at least so many bytes long. False when that is refused.
    bool growTo(std::uint64_t size);

    /// Writes bytes at this place of the image, and lets the system begin to bring them to the
    /// disk. How many of them reached the image: fewer than there are when it takes no more.
    std::size_t write(std::uint64_t offset, std::span<const std::uint8_t> bytes);

    /// Waits until everything is safe on the disk. When that fails, none of `unflushed()` counts:
    /// the system may drop what it could not write and call the next attempt a success.
    SystemError flush();
    const std::vector<ByteRange>& unflushed() const { return unflushed_; }
    /// Forgets what was written so far.
    void clearUnflushed() { unflushed_.clear(); }

    /// Whether this path leads to the very file that is open.
    bool isAt(const std::string& path) const;

private:
    FileDescriptor descriptor_;
    std::uint64_t sizeAtOpening_ = 0;
    std::vector<ByteRange> unflushed_;
};
