#include "VintrelCore/Disk/RawSource.h"

#include "VintrelCore/Foundation/AlignedBuffer.h"
#include "VintrelCore/Foundation/Rounding.h"

#include <CVintrel/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace {

/// macOS refuses to read more than 2^31 - 1 bytes in one call.
constexpr std::size_t largestSystemRead = std::size_t { 1 } << 30;

/// What a read past the system's cache takes at once when its own buffer is not aligned as it
/// should be.
constexpr std::size_t detourSize = std::size_t { 1 } << 20;

/// Of one read by signals.
constexpr int maxInterruptions = 100;

void fillZero(std::span<std::uint8_t> bytes) { std::ranges::fill(bytes, std::uint8_t { 0 }); }

} // namespace

RawSource::RawSource(Opened opened)
    : size_(opened.size)
    , sectorSize_(opened.sectorSize)
    , isDevice_(opened.isDevice)
    , needsAlignment_(opened.needsAlignment)
    , descriptor_(std::move(opened.descriptor))
    , read_(std::move(opened.read))
    , watch_(opened.size)
{
}

RawSource::~RawSource() = default;

std::uint64_t RawSource::nextData(std::uint64_t offset) const
{
    if (isDevice_ || !descriptor_ || offset >= size_)
        return std::min(offset, size_);
    const auto stored = CVintrel::nextStored(descriptor_.get(), offset, size_);
    const auto bad = std::ranges::upper_bound(simulatedBadRanges_, offset, {}, &ByteRange::end);
    return bad == simulatedBadRanges_.end() ? stored
                                            : std::min(stored, std::max(offset, bad->start));
}

bool RawSource::isFile(const struct ::stat& status) const
{
    struct ::stat own { };
    return descriptor_ && ::fstat(descriptor_.get(), &own) == 0 && own.st_dev == status.st_dev
        && own.st_ino == status.st_ino;
}

bool RawSource::readExact(std::uint64_t offset, std::span<std::uint8_t> into)
{
    return attempt(offset, into) == into.size();
}

/// One read attempt. Returns how many bytes were delivered before it failed, all of them when it
/// did not. What lies past the end of the source is delivered as zeros.
std::size_t RawSource::attempt(std::uint64_t offset, std::span<std::uint8_t> into)
{
    std::size_t done = 0;
    if (watch_.hasLeft())
        return 0;
    if (!into.empty() && offset < size_
        && isSimulatedBad(offset, offset + std::min<std::uint64_t>(into.size(), size_ - offset)))
        return 0;
    while (done < into.size()) {
        const auto rest = into.subspan(done);
        const std::uint64_t position = offset + done;
        if (position < offset || position >= size_) {
            fillZero(rest);
            break;
        }
        const auto count = readOnce(position, rest);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 || (count == 0 && isDevice_)) { // removed: its capacity is 0 now
            noteFailure(count < 0 ? errno : 0);
            return done;
        }
        if (count == 0) { // the file has become shorter
            fillZero(rest);
            break;
        }
        watch_.noteSuccess(roundDown(position, sectorSize_));
        bytesRead_ += static_cast<std::uint64_t>(count);
        done += static_cast<std::size_t>(count);
    }
    return into.size();
}

/// As pread().
ssize_t RawSource::readOnce(std::uint64_t offset, std::span<std::uint8_t> into)
{
    if (read_)
        return readElsewhere(offset, into);
    return needsAlignment_
        ? readAligned(offset, into)
        : ::pread(descriptor_.get(), into.data(), std::min(into.size(), largestSystemRead),
            static_cast<off_t>(std::min<std::uint64_t>(offset, std::numeric_limits<off_t>::max())));
}

/// As pread(). The other source has recovered what it could: what is missing now stays missing.
ssize_t RawSource::readElsewhere(std::uint64_t offset, std::span<std::uint8_t> into)
{
    const auto count
        = static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), size_ - offset));
    if (read_(offset, into.first(count)))
        return static_cast<ssize_t>(count);
    errno = EIO;
    return -1;
}

/// Image files stay where they are.
void RawSource::noteFailure(int error)
{
    if (isDevice_)
        watch_.noteFailure(
            error, descriptor_.get(), [this](std::uint64_t sector) { return readsAgain(sector); });
}

bool RawSource::readsAgain(std::uint64_t sector)
{
    std::vector<std::uint8_t> bytes(sectorSize_);
    for (int interruption = 0; interruption < maxInterruptions; ++interruption) {
        const auto count = readOnce(sector, bytes);
        if (count >= 0 || errno != EINTR)
            return count > 0;
    }
    return true; // signals are no sign of the device
}

/// As pread(), whatever the alignment.
ssize_t RawSource::readAligned(std::uint64_t offset, std::span<std::uint8_t> into)
{
    into = into.first(
        std::min(into.size(), static_cast<std::size_t>(roundDown(largestSystemRead, sectorSize_))));
    const bool suits = reinterpret_cast<std::uintptr_t>(into.data()) % AlignedBuffer::alignment == 0
        && offset % sectorSize_ == 0 && into.size() % sectorSize_ == 0;
    if (suits)
        return ::pread(descriptor_.get(), into.data(), into.size(), static_cast<off_t>(offset));

    const auto room = std::max<std::size_t>(detourSize, sectorSize_);
    if (!detour_)
        detour_ = std::make_unique<AlignedBuffer>(room);
    auto* const sectors = detour_->bytes().data();
    const auto head = static_cast<std::size_t>(offset % sectorSize_);
    const auto wanted
        = std::min(room, static_cast<std::size_t>(unitEnd(head + into.size() - 1, sectorSize_)));
    const auto count
        = ::pread(descriptor_.get(), sectors, wanted, static_cast<off_t>(offset - head));
    if (count <= static_cast<ssize_t>(head))
        return std::min<ssize_t>(count, 0); // failed, or at the end
    const auto delivered = std::min(static_cast<std::size_t>(count) - head, into.size());
    std::memcpy(into.data(), sectors + head, delivered);
    return static_cast<ssize_t>(delivered);
}

bool RawSource::isSimulatedBad(std::uint64_t start, std::uint64_t end) const
{
    const auto range = std::ranges::upper_bound(simulatedBadRanges_, start, {}, &ByteRange::end);
    return range != simulatedBadRanges_.end() && range->start < end;
}

void RawSource::addSimulatedBadRange(ByteRange range)
{
    range.end = std::min(range.end, size_);
    if (range.start >= range.end)
        return;
    auto& ranges = simulatedBadRanges_;
    const auto first = std::ranges::lower_bound(ranges, range.start, {}, &ByteRange::end);
    const auto last = std::ranges::upper_bound(ranges, range.end, {}, &ByteRange::start);
    if (first != last) {
        range.start = std::min(range.start, first->start);
        range.end = std::max(range.end, std::prev(last)->end);
    }
    ranges.insert(ranges.erase(first, last), range);
}
