#include "VintrelCore/Disk/DiskSource.h"

#include "VintrelCore/Foundation/Rounding.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

/// Reads above this go past the cache, so that copying a file does not push the metadata out of it.
constexpr std::uint64_t largestCachedRead = 262'144;

/// The piece that is given up (fast) or taken apart (thorough) after a read error. Blocks lie at
/// multiples of their size, so that readers with different starting points share what was learned
/// about a damaged area.
constexpr std::uint64_t blockSize = 65'536;

void fillZero(std::span<std::uint8_t> bytes) { std::ranges::fill(bytes, std::uint8_t { 0 }); }

} // namespace

DiskSource::DiskSource(Opened opened)
    : path_(std::move(opened.path))
    , displayName_(std::move(opened.displayName))
    , size_(opened.size)
    , sectorSize_(std::max<std::uint32_t>(opened.sectorSize, 512))
    , isDevice_(opened.isDevice)
    , bsdName_(std::move(opened.bsdName))
    , raw_({ .descriptor = std::move(opened.descriptor),
          .size = size_,
          .sectorSize = sectorSize_,
          .isDevice = isDevice_,
          .needsAlignment = opened.needsAlignment,
          .read = std::move(opened.read) })
    , cleanup_(std::move(opened.cleanup))
{
}

DiskSource::~DiskSource() { close(); }

Bytes DiskSource::read(std::uint64_t offset, std::int64_t count, ReadMode mode)
{
    return readReporting(offset, count, mode).data;
}

ReadReport DiskSource::readReporting(std::uint64_t offset, std::int64_t count, ReadMode mode)
{
    ReadReport report;
    if (count < 1)
        return report;
    report.data.resize(static_cast<std::size_t>(count));
    report.badBytes = readReporting(offset, std::span(report.data), mode);
    return report;
}

std::uint64_t DiskSource::readReporting(
    std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
{
    const std::uint64_t available = offset < size_ ? size_ - offset : 0;
    if (into.size() > available) {
        fillZero(into.subspan(static_cast<std::size_t>(available)));
        into = into.first(static_cast<std::size_t>(available));
    }
    if (into.empty())
        return 0;
    const CVintrel::MutexLock guard(lock_);
    std::uint64_t badBytes = 0;
    if (!isOutOfReach())
        badBytes = into.size() <= largestCachedRead ? readThroughCache(offset, into, mode)
                                                    : readLarge(offset, into, mode);
    return isOutOfReach() ? giveUp(into) : badBytes;
}

std::uint64_t DiskSource::readInto(
    std::uint64_t offset, std::span<std::uint8_t> buffer, ReadMode mode)
{
    const CVintrel::MutexLock guard(lock_);
    const std::uint64_t badBytes = isOutOfReach() ? 0 : rawRead(offset, buffer, mode);
    return isOutOfReach() ? giveUp(buffer) : badBytes;
}

bool DiskSource::tryRead(std::uint64_t offset, std::span<std::uint8_t> buffer)
{
    const CVintrel::MutexLock guard(lock_);
    if (isOutOfReach())
        return false;
    if (raw_.readExact(offset, buffer))
        return true;
    ++readErrors_;
    noticeLeaving();
    return false;
}

void DiskSource::markBad(std::uint64_t sector)
{
    const CVintrel::MutexLock guard(lock_);
    addBadSector(sector);
}

bool DiskSource::isKnownBad(std::uint64_t sector) const
{
    const CVintrel::MutexLock guard(lock_);
    return badSectors_.contains(sector);
}

bool DiskSource::hasBadSectors(std::uint64_t offset, std::uint64_t count) const
{
    const CVintrel::MutexLock guard(lock_);
    return count > 0
        && badSectors_.intersects(offset / sectorSize_, (offset + count - 1) / sectorSize_ + 1);
}

RangeSet DiskSource::badSectors() const
{
    const CVintrel::MutexLock guard(lock_);
    return badSectors_;
}

std::uint64_t DiskSource::badSectorCount() const
{
    const CVintrel::MutexLock guard(lock_);
    return badSectors_.total();
}

std::int64_t DiskSource::readErrorCount() const
{
    const CVintrel::MutexLock guard(lock_);
    return readErrors_;
}

std::uint64_t DiskSource::bytesRead() const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.bytesRead();
}

std::vector<ByteRange> DiskSource::simulatedBadRanges() const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.simulatedBadRanges();
}

void DiskSource::addSimulatedBadRange(ByteRange range)
{
    const CVintrel::MutexLock guard(lock_);
    raw_.addSimulatedBadRange(range);
}

std::uint64_t DiskSource::nextData(std::uint64_t offset) const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.nextData(offset);
}

bool DiskSource::isFile(const struct ::stat& status) const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.isFile(status);
}

bool DiskSource::hasLeft() const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.hasLeft();
}

std::uint64_t DiskSource::answers() const
{
    const CVintrel::MutexLock guard(lock_);
    return raw_.answers();
}

void DiskSource::whenLeaving(std::function<void()> action)
{
    const CVintrel::MutexLock guard(lock_);
    leavingAction_ = std::move(action);
}

bool DiskSource::isClosed() const
{
    const CVintrel::MutexLock guard(lock_);
    return closed_;
}

void DiskSource::close()
{
    std::function<void()> cleanup;
    {
        const CVintrel::MutexLock guard(lock_);
        if (closed_)
            return;
        closed_ = true;
        raw_.close();
        chunkByIndex_.clear();
        chunks_.clear();
        cleanup = std::exchange(cleanup_, nullptr);
    }
    if (cleanup)
        cleanup();
}

DiskSource::CachedChunk DiskSource::cachedChunk(std::uint64_t index, ReadMode mode)
{
    const std::uint64_t offset = index * static_cast<std::uint64_t>(chunkSize);
    if (const auto known = chunkByIndex_.find(index); known != chunkByIndex_.end()) {
        chunks_.splice(chunks_.end(), chunks_, known->second);
        const std::uint64_t firstSector = offset / sectorSize_;
        return { known->second->bytes,
            badSectors_.intersects(firstSector, firstSector + chunkSize / sectorSize_), false };
    }

    const bool isLastUncached = uncached_.index == index && !uncached_.bytes.empty();
    if (isLastUncached && mode == ReadMode::fast)
        return { uncached_.bytes, true, true };

    // A new chunk takes over the memory of the one that it displaces.
    Chunk chunk = std::exchange(uncached_, {});
    if (chunks_.size() >= maxCacheChunks) {
        chunk = std::move(chunks_.front());
        chunkByIndex_.erase(chunk.index);
        chunks_.pop_front();
    }
    const std::uint64_t length = std::min<std::uint64_t>(chunkSize, size_ - offset);
    chunk.index = index;
    chunk.bytes.resize(static_cast<std::size_t>(unitEnd(length - 1, sectorSize_)));
    const bool isBad = rawRead(offset, chunk.bytes, mode) > 0;
    if (isBad && mode == ReadMode::fast) { // not kept, so that a thorough read tries again
        uncached_ = std::move(chunk);
        return { uncached_.bytes, true, true };
    }
    chunkByIndex_[index] = chunks_.insert(chunks_.end(), std::move(chunk));
    return { chunks_.back().bytes, isBad, false };
}

std::uint64_t DiskSource::readThroughCache(
    std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
{
    std::uint64_t badBytes = 0;
    while (!into.empty()) {
        const auto chunk = cachedChunk(offset / chunkSize, mode);
        const auto at = static_cast<std::size_t>(offset % chunkSize);
        const auto count = std::min(chunk.bytes.size() - at, into.size());
        std::memcpy(into.data(), chunk.bytes.data() + at, count);
        if (chunk.hasBadBytes)
            badBytes
                += chunk.wasReadFast ? suspectBytesIn(offset, count) : badBytesIn(offset, count);
        offset += count;
        into = into.subspan(count);
    }
    return badBytes;
}

std::uint64_t DiskSource::readLarge(
    std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
{
    const std::uint64_t start = roundDown(offset, sectorSize_);
    const auto head = static_cast<std::size_t>(offset - start);
    const auto length = static_cast<std::size_t>(unitEnd(head + into.size() - 1, sectorSize_));
    if (length == into.size())
        return rawRead(offset, into, mode);
    aligned_.resize(length);
    const std::uint64_t badBytes = rawRead(start, aligned_, mode);
    std::memcpy(into.data(), aligned_.data() + head, into.size());
    return std::min<std::uint64_t>(badBytes, into.size());
}

std::uint64_t DiskSource::rawRead(std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
{
    if (isKnownToFail(offset, into.size(), mode))
        return recoverRead(offset, into, mode);
    const std::size_t done = raw_.attempt(offset, into);
    if (done == into.size())
        return 0;
    ++readErrors_;
    // A read that broke off in the middle of a sector has to give that sector another try as a
    // whole.
    const std::uint64_t failedSector = roundDown(offset + done, sectorSize_);
    const auto from = failedSector > offset ? static_cast<std::size_t>(failedSector - offset) : 0;
    return recoverRead(offset + from, into.subspan(from), mode);
}

std::uint64_t DiskSource::recoverRead(
    std::uint64_t offset, std::span<std::uint8_t> into, ReadMode mode)
{
    std::uint64_t badBytes = 0;
    while (!into.empty()) {
        const auto block = into.first(static_cast<std::size_t>(
            std::min<std::uint64_t>(into.size(), unitEnd(offset, blockSize) - offset)));
        const std::uint64_t number = offset / blockSize;
        const bool isSuspect = suspectBlocks_.contains(number)
            || isKnownToFail(offset, block.size(), ReadMode::thorough);
        if (isSuspect || !raw_.readExact(offset, block)) {
            if (mode == ReadMode::fast) {
                suspectBlocks_.add(number, number + 1);
                fillZero(block);
                badBytes += block.size();
            } else {
                badBytes += recoverSectors(offset, block);
            }
        }
        offset += block.size();
        into = into.subspan(block.size());
    }
    return badBytes;
}

std::uint64_t DiskSource::recoverSectors(std::uint64_t offset, std::span<std::uint8_t> into)
{
    std::uint64_t badBytes = 0;
    while (!into.empty()) {
        const auto piece = into.first(static_cast<std::size_t>(
            std::min<std::uint64_t>(into.size(), unitEnd(offset, sectorSize_) - offset)));
        const std::uint64_t sector = offset / sectorSize_;
        const bool wasKnown = badSectors_.contains(sector);
        if (wasKnown || !raw_.readExact(offset, piece)) {
            if (!wasKnown && !raw_.hasLeft()) {
                addBadSector(sector);
                ++readErrors_;
            }
            fillZero(piece);
            badBytes += piece.size();
        }
        offset += piece.size();
        into = into.subspan(piece.size());
    }
    return badBytes;
}

void DiskSource::addBadSector(std::uint64_t sector)
{
    if (std::exchange(answersBeforeDoubt_, raw_.answers()) != raw_.answers())
        doubtfulSectors_ = {};
    doubtfulSectors_.add(sector, sector + 1);
    badSectors_.add(sector, sector + 1);
}

/// What is read from a source that is closed or has left.
std::uint64_t DiskSource::giveUp(std::span<std::uint8_t> into)
{
    noticeLeaving();
    fillZero(into);
    return into.size();
}

/// A device that leaves says nothing of the sectors that it failed to read on its way.
void DiskSource::noticeLeaving()
{
    if (!raw_.hasLeft())
        return;
    if (answersBeforeDoubt_ == raw_.answers())
        for (const auto& [first, end] : doubtfulSectors_.ranges())
            badSectors_.remove(first, end);
    doubtfulSectors_ = {};
    if (const auto action = std::exchange(leavingAction_, nullptr))
        action();
}

/// Whether an attempt would ask the disk for what it has failed to read before, which costs a dying
/// one seconds and maybe its last.
bool DiskSource::isKnownToFail(std::uint64_t offset, std::uint64_t count, ReadMode mode) const
{
    if (count == 0)
        return false;
    const std::uint64_t last = offset + count - 1;
    return badSectors_.intersects(offset / sectorSize_, last / sectorSize_ + 1)
        || (mode == ReadMode::fast
            && suspectBlocks_.intersects(offset / blockSize, last / blockSize + 1));
}

std::uint64_t DiskSource::badBytesIn(std::uint64_t offset, std::uint64_t count) const
{
    const std::uint64_t first = offset / sectorSize_;
    const std::uint64_t end = (offset + count - 1) / sectorSize_ + 1;
    std::uint64_t sectors = 0;
    for (auto bad = badSectors_.firstEndingBehind(first); bad && bad->start < end;
         bad = badSectors_.firstEndingBehind(bad->end))
        sectors += std::min(bad->end, end) - std::max(bad->start, first);
    return std::min(sectors * sectorSize_, count);
}

std::uint64_t DiskSource::suspectBytesIn(std::uint64_t offset, std::uint64_t count) const
{
    std::uint64_t badBytes = 0;
    for (const std::uint64_t end = offset + count; offset < end;) {
        const std::uint64_t next = std::min(unitEnd(offset, blockSize), end);
        if (suspectBlocks_.contains(offset / blockSize))
            badBytes += next - offset;
        offset = next;
    }
    return badBytes;
}
